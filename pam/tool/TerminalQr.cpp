#include "TerminalQr.h"

#include <qrencode.h>

namespace brackmoor::pam {
namespace {

constexpr int kQuietZone = 4;

/// Owns the encoder's result.
class EncodedQr {
public:
    explicit EncodedQr(const std::string& text)
        : code_(QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_M, QR_MODE_8, 1))
    {
    }
    ~EncodedQr()
    {
        if (code_ != nullptr) {
            QRcode_free(code_);
        }
    }
    EncodedQr(const EncodedQr&) = delete;
    EncodedQr& operator=(const EncodedQr&) = delete;

    bool Valid() const { return code_ != nullptr; }
    int Width() const { return code_->width; }
    /// Dark module at (x, y); outside the symbol is the light quiet zone.
    bool Dark(int x, int y) const
    {
        if (x < 0 || y < 0 || x >= code_->width || y >= code_->width) {
            return false;
        }
        return (code_->data[y * code_->width + x] & 1) != 0;
    }

private:
    QRcode* code_;
};

} // namespace

std::string RenderQr(const std::string& text, bool invert)
{
    const EncodedQr code(text);
    if (!code.Valid()) {
        return std::string();
    }
    static const char* const kCells[4] = {" ", "\u2584", "\u2580", "\u2588"}; // index: top*2 + bottom
    const int first = -kQuietZone;
    const int last = code.Width() + kQuietZone; // exclusive
    std::string out;
    for (int y = first; y < last; y += 2) {
        for (int x = first; x < last; ++x) {
            const bool top = code.Dark(x, y) == invert;
            const bool bottom = y + 1 < last && code.Dark(x, y + 1) == invert;
            out += kCells[(top ? 2 : 0) + (bottom ? 1 : 0)];
        }
        out += '\n';
    }
    return out;
}

} // namespace brackmoor::pam
