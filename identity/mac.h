#pragma once
// MAC addresses in the calibration partition.

// The keys under which addresses are recorded in the configuration table, for the report.
constexpr char kWiredMacKey[] = "PORT%d_ORIG_MAC";  // by the slot's id, from 1
constexpr char k24GMacKey[] = "WIFI_2.4G_MAC";
constexpr char k5GMacKey[] = "WIFI_5G_MAC";

// Programs one address after another, from the one that `text` gives, into the slots that "SYSTEM_MAC_ARGS" lists,
// records each in the configuration table, and gives the wired interfaces their network addresses again: as many as
// initialFunc counted, none where it did not run. A 5 GHz slot has the checksum of the calibration block repaired.
// `text` is six pairs of hexadecimal digits with colons; or, without any colon, a decimal number whose low 48 bits are
// the address.
// Returns 0; or -1 when there is no slot list, the partition cannot be opened, or a slot has no offset: earlier slots
// are then written, the rest is not done. Failed writes are not noticed.
int setMac(const char *text);

// Writes the checksum of the qc98xx calibration block in partition "SYSTEM_ART_PART" when it is not right.
void qc98xx_verify_checksum();
