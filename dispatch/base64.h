// The server's own base64 codec, used when an image held in memory becomes text for a page.
#pragma once

#include <string>

// url: the URL-safe alphabet ("-", "_") with "." as the padding character.
std::string base64_encode(const unsigned char* bytes, unsigned long length, bool url);
std::string base64_encode(const unsigned char* bytes, unsigned int length);
// Stops silently at the end, the first "=", or the first character outside the standard
// alphabet (so URL-safe text, blanks and line breaks end it).
std::string base64_decode(const std::string& encoded);
