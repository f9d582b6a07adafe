// kd_xml charset: makes feeds written in legacy charsets readable by Mini-XML,
// which reads UTF-8 only. Used by the document loading of kd_xml.
#pragma once
#include "feed/kd_xml.h"

// Readies the charset of *body (NUL-terminated slab memory, byte-order mark
// already removed) and describes in *info what was done:
//   - a body that is valid UTF-8, or whose charset is UTF-8 or US-ASCII, stays
//     exactly as it is;
//   - otherwise the charset is the declaration's encoding, else the
//     Content-Type's charset, else windows-1252, and the body is replaced by a
//     new slab buffer holding it in UTF-8 (the old one is released), with the
//     declaration's encoding rewritten to UTF-8. The new body holds at most
//     KD_FEED_MAX_BYTES bytes (info->cut when more would have come) and ends
//     before an invalid sequence (info->invalid, logged as an xml error);
//   - a charset that cannot be decoded leaves the body as it is (info->unknown,
//     logged as an xml error).
// False only when memory ran out (logged; *body then unchanged).
bool kdx_decode_body(const char *content_type, char **body, kdx_charset_info *info);
