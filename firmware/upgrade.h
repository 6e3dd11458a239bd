#pragma once
// Installs a whole firmware image.

// Waits without a limit until the board has booted, checks the image's MD5 trailer, stages the image's sections under
// /tmp and runs the platform's flashing tools on them. Cuts the trailer off the file even when the check fails.
// Returns -1 when the image cannot be opened, is too short or fails the check, else 0: it installs an image of another
// product, too, and does not look at the results of the flashing tools.
int writeImage(const char *path);

// Flashes the staged images in /tmp, also those of an earlier image. Returns the status of starting the upgrade, or the
// non-zero result of the test when there is no staged firmware.
int CheckFileDoUpgrade();

// Does nothing; the mode "domcheck" and the command BYE call it.
void writeDOMCheck(const char *argument);
