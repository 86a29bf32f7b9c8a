// SPDX-License-Identifier: Apache-2.0
// Names and paths as bytes: they may be any bytes, yet JSON must carry them exactly and a
// terminal must show them without obeying them. The names are read as UTF-8 whatever the
// locale, since that is how a key location typed on a device arrives.
#ifndef TAVIKM_TOOLS_TEXT_H_
#define TAVIKM_TOOLS_TEXT_H_

#include <stddef.h>

#include <string>

namespace tavikm_tool {

// Whether `bytes` is well-formed UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF.
bool ValidUtf8(const std::string& bytes);

// `bytes` as a JSON string literal: well-formed UTF-8 as it is, with '"', '\\' and the control
// characters (C0, DEL, C1) and the bidirectional controls as \u escapes; each byte that is not
// part of a well-formed sequence becomes U+FFFD.
std::string JsonString(const std::string& bytes);

// The member `"name": <JsonString>`, followed by `, "name_hex": "<bytes in hex>"` when the
// bytes are not well-formed UTF-8, so that nothing is lost.
std::string JsonTextMember(const std::string& name, const std::string& bytes);

// `bytes` made safe for a terminal and a one-line table cell: control characters (C0, DEL, C1),
// bidirectional controls and bytes outside well-formed UTF-8 as \xNN per byte, '\\' doubled,
// and with `quoted`, '"' as \". Everything else (letters of any script) is kept.
std::string TerminalText(const std::string& bytes, bool quoted = false);

// The columns a terminal gives `text` (well-formed UTF-8 without controls, as TerminalText
// returns): combining marks take none, East Asian wide and emoji characters two.
size_t DisplayWidth(const std::string& text);

// `text` padded with spaces to `width` columns (never cut).
std::string PadToWidth(const std::string& text, size_t width);

// `text` cut to at most `width` columns, ending in "..." when it was cut.
std::string FitToWidth(const std::string& text, size_t width);

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_TEXT_H_
