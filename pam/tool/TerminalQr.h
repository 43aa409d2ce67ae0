#pragma once

#include <string>

namespace brackmoor::pam {

/// A QR code of `text` drawn with UTF-8 half blocks, two module rows per
/// line, with the standard quiet zone of four modules. Light modules are
/// drawn as blocks, which suits light text on a dark terminal; `invert`
/// draws dark modules instead, for dark text on a light terminal.
/// Empty when the text does not fit a QR code.
std::string RenderQr(const std::string& text, bool invert);

} // namespace brackmoor::pam
