// Printing through CUPS: one PDF job per print, to the printer "printer.name" names or the
// system's default destination, looked up at each print.
#pragma once

namespace portable {

// The camera's picture as bSaveJPG would save it.
bool printCameraStill(int copies);
// An image file; fit: scaled to the printable area, else at the image's own DPI (shrunk only
// when it would not fit). path in the local 8-bit encoding when local8 is set, else UTF-8.
bool printImageFile(const char* fn, const char* path, bool local8, int copies, bool fit);

}  // namespace portable
