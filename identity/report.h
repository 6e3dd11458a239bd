#pragma once
// The status report for the test station.

// Size of the report's buffer, which is that of a command. A longer report is cut.
constexpr int kReportSize = 1500;

// Builds the report: product, memory, country code, MAC addresses, and a verdict on memory, radios and wired ports,
// with failures marked by colour sequences. Unless pingFlag is 0, the first line names the failed checks. Copies the
// report into `buffer` (kReportSize bytes) unless that is null; the text is empty when memory ran out.
void getInfo(char *buffer, int pingFlag);
