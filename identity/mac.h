#pragma once
// MAC addresses in the calibration partition.

// Keys of the programmed addresses in the configuration table.
constexpr char kWiredMacKey[] = "PORT%d_ORIG_MAC";  // with the slot's id, from 1
constexpr char k24GMacKey[] = "WIFI_2.4G_MAC";
constexpr char k5GMacKey[] = "WIFI_5G_MAC";

// Programs consecutive addresses, beginning with `text`, into the slots of "SYSTEM_MAC_ARGS" in their order, and stores
// each in the configuration table. Repairs the checksum of the calibration block after a 5 GHz slot. Then gives the
// wired interfaces (wireTotal) their IP addresses again.
// `text` is six pairs of hexadecimal digits with colons or, without any colon, a decimal number whose low 48 bits are
// the address.
// Returns 0, or -1 when the slot list is missing, the partition cannot be opened, or a slot has no offset: the slots
// before that one are then programmed, and nothing else is done. Failed writes go unnoticed.
int setMac(const char *text);

// Corrects the checksum of the qc98xx calibration block in partition "SYSTEM_ART_PART" if it is wrong.
void qc98xx_verify_checksum();
