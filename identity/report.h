#pragma once
// The status report for the test station.

struct Facts;

// Room that the report is given, its NUL included; a longer one is cut there.
constexpr int kReportSize = 1500;

// Builds the report: product, memory, country code, MAC addresses, and a verdict on memory, radios and wired ports,
// failures marked by colour sequences. Copies it into `buffer` (kReportSize bytes) unless that is null. With pingFlag
// set the first line names the failed checks.
void getInfo(char *buffer, int pingFlag);

// The text of the report, from what findFacts found: a heap string that the caller frees. With `named` the first line
// names the failed checks. Memory that runs out leaves null, or a text whose beginning is lost.
char *writeReport(const Facts &facts, bool named);
