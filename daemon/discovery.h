#pragma once
// The layer-2 handshake with which a test station finds the board before the connection.

// Waits for an Ethernet frame of EtherType 0x55AA to the address of eth0 or to the broadcast address, and answers it
// three times with EtherType 0xAA55 and an unchanged payload. Returns after that, or at once when the set-up fails.
void run_fabtestd();
