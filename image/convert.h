// Pixel conversion between the seven pixel types, inlined into the line loops.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

namespace vx::image {

constexpr uint32_t kBytesPerPixel[7] = {3, 1, 1, 4, 12, 4, 16};

constexpr std::array<float, 256> kByteToFloat = [] {
    std::array<float, 256> table{};
    for (int v = 0; v < 256; ++v)
        table[v] = static_cast<float>(v) / 255.0f;
    return table;
}();

inline int InverseKey(uint8_t r, uint8_t g, uint8_t b)
{
    return ((r & 0xF8) << 8) | ((g & 0xFC) << 3) | (b >> 3);
}

// Clamps to 0..1, scales by 255 and truncates toward zero (NaN gives 0).
inline uint8_t FloatToByte(float f)
{
    if (!(f > 0.0f))
        return 0;
    if (f > 1.0f)
        f = 1.0f;
    return static_cast<uint8_t>(f * 255.0f);
}

inline uint8_t LumaByte(uint8_t r, uint8_t g, uint8_t b)
{
    return static_cast<uint8_t>((r * 19595u + g * 38470u + b * 7471u) >> 16);
}

inline float LumaOfBytes(uint8_t r, uint8_t g, uint8_t b)
{
    return static_cast<float>(r) * 0.001172549f + static_cast<float>(g) * 0.002301961f +
           static_cast<float>(b) * 0.000447059f;
}

inline float LumaOfFloats(float r, float g, float b) { return 0.299f * r + 0.587f * g + 0.114f * b; }

// A decoded pixel: bytes for byte types (0, 1, 2, 5), floats for float types (3, 4, 6).
struct Decoded {
    bool isFloat;
    bool isGrey;
    uint8_t b[4];
    float f[4];
};

inline bool Decode(Decoded &d, const void *in, int32_t type, const uint8_t *palette)
{
    const auto *p = static_cast<const uint8_t *>(in);
    d.isGrey = false;
    d.isFloat = false;
    switch (type) {
    case 0: d.b[0] = p[0]; d.b[1] = p[1]; d.b[2] = p[2]; d.b[3] = 255; return true;
    case 1: d.b[0] = d.b[1] = d.b[2] = p[0]; d.b[3] = 255; d.isGrey = true; return true;
    case 2:
        if (!palette)
            return false;
        std::memcpy(d.b, palette + 3 * p[0], 3);
        d.b[3] = 255;
        return true;
    case 5: std::memcpy(d.b, p, 4); return true;
    case 3: std::memcpy(d.f, p, 4); d.f[1] = d.f[2] = d.f[0]; d.f[3] = 1.0f; break;
    case 4: std::memcpy(d.f, p, 12); d.f[3] = 1.0f; break;
    case 6: std::memcpy(d.f, p, 16); break;
    default: return false;
    }
    d.isFloat = true;
    if (type == 3)
        d.isGrey = true;
    return true;
}

inline bool EncodeFromBytes(void *out, int32_t type, const uint8_t *inverse, const Decoded &d)
{
    auto *o = static_cast<uint8_t *>(out);
    float f[4];
    switch (type) {
    case 0: std::memcpy(o, d.b, 3); return true;
    case 1: o[0] = d.isGrey ? d.b[0] : LumaByte(d.b[0], d.b[1], d.b[2]); return true;
    case 2:
        if (!inverse)
            return false;
        o[0] = inverse[InverseKey(d.b[0], d.b[1], d.b[2])];
        return true;
    case 5: std::memcpy(o, d.b, 4); return true;
    case 3:
        f[0] = d.isGrey ? kByteToFloat[d.b[0]] : LumaOfBytes(d.b[0], d.b[1], d.b[2]);
        std::memcpy(o, f, 4);
        return true;
    case 4:
    case 6:
        for (int c = 0; c < 4; ++c)
            f[c] = kByteToFloat[d.b[c]];
        std::memcpy(o, f, type == 4 ? 12 : 16);
        return true;
    default: return false;
    }
}

inline bool EncodeFromFloats(void *out, int32_t type, const uint8_t *inverse, const Decoded &d)
{
    auto *o = static_cast<uint8_t *>(out);
    uint8_t b[4];
    float grey;
    switch (type) {
    case 0:
    case 2:
    case 5:
        for (int c = 0; c < 3; ++c)
            b[c] = FloatToByte(d.f[c]);
        b[3] = FloatToByte(d.f[3]);
        if (type == 2) {
            if (!inverse)
                return false;
            o[0] = inverse[InverseKey(b[0], b[1], b[2])];
        } else {
            std::memcpy(o, b, type == 0 ? 3 : 4);
        }
        return true;
    case 1:
        o[0] = FloatToByte(d.isGrey ? d.f[0] : LumaOfFloats(d.f[0], d.f[1], d.f[2]));
        return true;
    case 3:
        grey = d.isGrey ? d.f[0] : LumaOfFloats(d.f[0], d.f[1], d.f[2]);
        std::memcpy(o, &grey, 4);
        return true;
    case 4: std::memcpy(o, d.f, 12); return true;
    case 6: std::memcpy(o, d.f, 16); return true;
    default: return false;
    }
}

inline bool ConvertOne(void *out, int32_t outType, const uint8_t *inverse, const void *in, int32_t inType,
                       const uint8_t *palette)
{
    Decoded d;
    if (!Decode(d, in, inType, palette))
        return false;
    return d.isFloat ? EncodeFromFloats(out, outType, inverse, d) : EncodeFromBytes(out, outType, inverse, d);
}

// Byte RGB(A) to RGBA floats and back, the conversions every operation's reads and writes
// make: the same formulas as ConvertOne, in loops without a per-pixel switch.
inline void BytesToRgbaFloat(float *out, const uint8_t *in, size_t count, int channels)
{
    if (channels == 4) {  // v / 255 computed in place of the table lookup: the same value
        for (size_t i = 0; i < 4 * count; ++i)
            out[i] = static_cast<float>(in[i]) / 255.0f;
        return;
    }
    for (size_t i = 0; i < count; ++i, in += channels, out += 4) {
        out[0] = kByteToFloat[in[0]];
        out[1] = kByteToFloat[in[channels == 1 ? 0 : 1]];
        out[2] = kByteToFloat[in[channels == 1 ? 0 : 2]];
        out[3] = 1.0f;
    }
}

// FloatToByte without branches, so that the loop below vectorises.
inline uint8_t FloatToByteFlat(float f)
{
    const float low = f > 0.0f ? f : 0.0f;  // NaN fails the test and becomes 0
    const float clamped = low < 1.0f ? low : 1.0f;
    return static_cast<uint8_t>(static_cast<int32_t>(clamped * 255.0f));
}

inline void RgbaFloatToBytes(uint8_t *out, const float *in, size_t count, int channels)
{
    if (channels == 4) {
        for (size_t i = 0; i < 4 * count; ++i)
            out[i] = FloatToByteFlat(in[i]);
        return;
    }
    for (size_t i = 0; i < count; ++i, in += 4, out += channels)
        for (int c = 0; c < channels; ++c)
            out[c] = FloatToByteFlat(in[c]);
}

// Converts `count` pixels; false at the first pixel that cannot be converted.
inline bool ConvertRun(void *out, int32_t outType, const uint8_t *inverse, const void *in, int32_t inType,
                       const uint8_t *palette, size_t count)
{
    if (outType < 0 || outType > 6 || inType < 0 || inType > 6)
        return false;
    auto *o = static_cast<uint8_t *>(out);
    const auto *p = static_cast<const uint8_t *>(in);
    if (outType == 6 && (inType == 0 || inType == 1 || inType == 5)) {
        BytesToRgbaFloat(reinterpret_cast<float *>(o), p, count, inType == 0 ? 3 : inType == 1 ? 1 : 4);
        return true;
    }
    if (inType == 6 && (outType == 0 || outType == 5)) {
        RgbaFloatToBytes(o, reinterpret_cast<const float *>(p), count, outType == 0 ? 3 : 4);
        return true;
    }
    const size_t outStep = kBytesPerPixel[outType], inStep = kBytesPerPixel[inType];
    for (size_t i = 0; i < count; ++i, o += outStep, p += inStep)
        if (!ConvertOne(o, outType, inverse, p, inType, palette))
            return false;
    return true;
}

}  // namespace vx::image
