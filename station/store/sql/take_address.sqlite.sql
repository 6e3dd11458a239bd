printf('%02X:%02X:%02X:%02X:%02X:%02X', (number >> 40) & 255, (number >> 32) & 255, (number >> 24) & 255,
    (number >> 16) & 255, (number >> 8) & 255, number & 255)
