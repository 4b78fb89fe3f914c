#include "Host/Media/TestPatternPicture.h"

#include <array>
#include <string>

extern "C" {
#include <libavutil/frame.h>
}

namespace loopstore::media {

namespace {

constexpr int kCell = 5;  // pixels per block of a glyph
constexpr uint8_t kDark = 24;
constexpr uint8_t kLight = 235;

// 3x5 block glyphs, one row of three bits per entry, top row first.
uint16_t Glyph(char c) {
    static constexpr std::array<uint16_t, 10> kDigits = {
        0b111'101'101'101'111, 0b010'110'010'010'111, 0b111'001'111'100'111, 0b111'001'111'001'111,
        0b101'101'111'001'001, 0b111'100'111'001'111, 0b111'100'111'101'111, 0b111'001'010'010'010,
        0b111'101'111'101'111, 0b111'101'111'001'111};
    if (c >= '0' && c <= '9')
        return kDigits[c - '0'];
    if (c == ':')
        return 0b000'010'000'010'000;
    if (c == '.')
        return 0b000'000'000'000'010;
    if (c == 'T')
        return 0b111'010'010'010'010;
    return 0;
}

void FillLuma(AVFrame& frame, int x0, int y0, int w, int h, uint8_t value) {
    for (int y = y0; y < y0 + h && y < frame.height; ++y)
        for (int x = x0; x < x0 + w && x < frame.width; ++x)
            frame.data[0][y * frame.linesize[0] + x] = value;
}

// Writes `text` with its top left corner at (x, y) on a dark plate.
void Write(AVFrame& frame, int x, int y, const std::string& text) {
    const int advance = 4 * kCell;
    FillLuma(frame, x - kCell, y - kCell, advance * static_cast<int>(text.size()) + kCell,
             7 * kCell, kDark);
    for (size_t i = 0; i < text.size(); ++i) {
        const uint16_t glyph = Glyph(text[i]);
        for (int row = 0; row < 5; ++row)
            for (int col = 0; col < 3; ++col)
                if ((glyph >> (14 - row * 3 - col)) & 1)
                    FillLuma(frame, x + static_cast<int>(i) * advance + col * kCell,
                             y + row * kCell, kCell, kCell, kLight);
    }
}

std::string TwoDigits(int64_t value) {
    return std::string(1, static_cast<char>('0' + value / 10)) +
           static_cast<char>('0' + value % 10);
}

// "HH:MM:SS.F", F the tenth of a second.
std::string ClockText(int64_t unixNanoseconds) {
    const int64_t tenths = (unixNanoseconds / 100'000'000) % (24 * 3600 * 10);
    const int64_t seconds = tenths / 10;
    return TwoDigits(seconds / 3600) + ":" + TwoDigits(seconds / 60 % 60) + ":" +
           TwoDigits(seconds % 60) + "." + static_cast<char>('0' + tenths % 10);
}

void DrawBackground(AVFrame& frame, int64_t trackId) {
    for (int y = 0; y < frame.height; ++y)
        for (int x = 0; x < frame.width; ++x)
            frame.data[0][y * frame.linesize[0] + x] =
                static_cast<uint8_t>(60 + 80 * y / frame.height);
    // Each track its own hue, well apart from its neighbours.
    const uint8_t u = static_cast<uint8_t>(128 + ((trackId * 53) % 96) - 48);
    const uint8_t v = static_cast<uint8_t>(128 + ((trackId * 97 + 31) % 96) - 48);
    for (int y = 0; y < frame.height / 2; ++y)
        for (int x = 0; x < frame.width / 2; ++x) {
            frame.data[1][y * frame.linesize[1] + x] = u;
            frame.data[2][y * frame.linesize[2] + x] = v;
        }
}

void DrawSweep(AVFrame& frame, int64_t unixNanoseconds) {
    const int64_t withinSecond = unixNanoseconds % 1'000'000'000;
    const int width = frame.width / 16;
    const int x = static_cast<int>(withinSecond * (frame.width - width) / 1'000'000'000);
    FillLuma(frame, x, frame.height * 3 / 4, width, frame.height / 4, kLight);
}

// Snow in a band above the sweep: ten times the bytes of the plain pattern,
// so that a small store fills with few pictures to encode.
void DrawSnow(AVFrame& frame, int64_t trackId, int64_t unixNanoseconds) {
    uint64_t state = static_cast<uint64_t>(unixNanoseconds) * 0x9E3779B97F4A7C15ull ^
                     static_cast<uint64_t>(trackId) * 0xBF58476D1CE4E5B9ull;
    const int top = frame.height / 2;
    for (int y = top; y < frame.height * 3 / 4; ++y)
        for (int x = 0; x < frame.width; ++x) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            frame.data[0][y * frame.linesize[0] + x] = static_cast<uint8_t>(64 + (state >> 57));
        }
}

}  // namespace

void TestPatternPicture::Draw(AVFrame& frame, int64_t trackId, int64_t unixNanoseconds, bool snow) {
    DrawBackground(frame, trackId);
    DrawSweep(frame, unixNanoseconds);
    if (snow)
        DrawSnow(frame, trackId, unixNanoseconds);
    Write(frame, 2 * kCell, 2 * kCell, "T" + std::to_string(trackId % 1000));
    Write(frame, 2 * kCell, 10 * kCell, ClockText(unixNanoseconds));
}

}  // namespace loopstore::media
