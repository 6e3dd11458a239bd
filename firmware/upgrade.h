#pragma once
// Installs a whole firmware image.

// Waits without a limit until the board has booted, checks the image's MD5 trailer, stages the image's sections under
// /tmp and runs the platform's flashing tools on them. Cuts the trailer off the file even when the check fails.
// Returns -1 when the image cannot be opened, is too short or fails the check, otherwise 0. It also installs an image
// of another product, and ignores the results of the flashing tools.
int writeImage(const char *path);

// Flashes the sections staged in /tmp, including those of an earlier image. Returns the status of starting the upgrade;
// without a staged firmware section, the non-zero result of the test for it.
int CheckFileDoUpgrade();

// Does nothing; the mode "domcheck" and the command BYE call it.
void writeDOMCheck(const char *argument);
