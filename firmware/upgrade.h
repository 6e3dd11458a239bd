#pragma once
// Installing a whole firmware image.

// Waits until the board has finished booting, checks the image's MD5 trailer, splits the image into staged partition
// images and has the platform's tools flash them. The trailer is cut off the file, whatever comes of the check.
// Returns -1 when the image cannot be opened, is too short or fails the check, else 0: an image of another product is
// installed, and nobody looks at what the flashing tools return.
int writeImage(const char *path);

// Flashes the staged images that are in /tmp. Returns the status of the upgrade's start, or of the test that found no
// staged firmware.
int CheckFileDoUpgrade();

// Does nothing: the place where a board with a disk on module would rewrite its check data.
void writeDOMCheck(const char *argument);
