#pragma once
// The layer-2 handshake by which a test station finds the board before there is a connection.

// Waits for an Ethernet frame of EtherType 0x55AA to the address of eth0 or to everyone, and answers it three times
// with EtherType 0xAA55, everything behind that unchanged. Returns when it has, or at once when it cannot be set up.
void run_fabtestd();
