// Picture operations of CxPicBufAPI: accumulation, division, channel moves,
// fills, float range, rectangle copies and conversion to display RGB.
//
// Common rules
// - A picture is usable when it has pixels, rows at least as long as their
//   samples and (when its memory size is known) all rows inside that memory.
//   Anything else, a sample type without a kernel, a size or channel mismatch
//   or a rectangle that does not fit answers false and writes nothing. A
//   picture of width or height 0 is fine and there is nothing to do.
// - Rows are walked through each picture's own line pitch and only their
//   samples are touched: padding is never read or written, so a picture that
//   ends right after its last row's samples is safe.
// - Multi-channel pictures are interleaved; planar storage with more than one
//   channel is refused.
// - bitsPerSample does not limit arithmetic: sums and quotients use the full
//   range of the sample type.
// - Large pictures are split by rows over the kit's row scheduler; small ones
//   stay on the calling thread. Nothing allocates picture memory.
//
// Add, AddSquares (acc, frame)
//   Same width, height and channel count, except that a three-channel sum
//   takes the colours of a four-channel isColor frame stored interleaved
//   (storage format 1) and skips its alpha.
//   Accepted types: an integer sum takes integer samples it can hold (unsigned
//   sums: unsigned samples no wider; signed sums: signed samples no wider and
//   unsigned ones narrower), a float sum takes integers and floats no wider.
//   Sums of squares are unsigned at least twice as wide as the sample (u32 for
//   8- and 16-bit samples, u64 also for 32-bit ones) or float.
//   Integer sums saturate at their type's limits instead of wrapping, so a sum
//   that ran out of room stays at full scale. A float sum just adds; its
//   squares are formed exactly (through double) and added with one rounding.
// Min, Max (acc, frame)
//   Same type, size and channels; every type but half. A NaN in the frame never
//   replaces a number in acc; a NaN already in acc stays.
// DivideByValue (sum, divisor, out)
//   divisor >= 1; same size; channels equal, or a three-channel sum into a
//   four-channel isColor out stored interleaved (storage format 1), whose
//   alpha is set to out's full scale (1.0 for floats), or such a
//   four-channel sum into a three-channel out (its alpha left out, as Add
//   leaves it out of a three-channel sum). Every sum type but
//   half; out any type but half and the 64-bit integers. Integer outputs are
//   rounded to nearest, halves away from zero, and clamped to out's type
//   range; NaN gives 0. Float outputs take the quotient worked out in double.
// ExtractChannel (in, out, channel)
//   out has one channel, in's type and size; channel < in's channel count (a
//   one-channel in is copied with channel 0). A raw 2x2 mosaic (colour filter
//   arrays 1 to 6, not storage format 3) also counts its four cells as
//   channels 0 to 3, cell (channel % 2, channel / 2), when out is half its
//   width and height (rounded down). Any known type; samples moved by width
//   only. in and out must not share memory (except the same
//   one-channel picture, which is left as it is); ConvertPicToRGB likewise.
// ConvertPicToRGB (in, out)
//   out: unsigned 8-bit, 4 channels, in's size; bytes B, G, R, A per pixel, i.e.
//   QImage::Format_RGB32 / Format_ARGB32 on little-endian, alpha always 255.
//   Integer samples are shifted right by their significant bits beyond eight
//   (12-bit data by 4) and clamped, negative values black; floats map
//   [floatMin, floatMax] of the picture onto 0..255 (0..1 when no range is
//   recorded). Three or four isColor channels are B, G, R(, A); a raw Bayer
//   mosaic (RGGB, GRBG, GBRG, BGGR, and the R G / B R pattern) is demosaiced
//   bilinearly at full size; everything else shows channel 0 as grey (CMYG and
//   hyperspectral mosaics included). 64-bit integer and half types are refused.
// FillChannelsValue, FillChannelWithValue
//   The value is held inside the sample type's range (300 into 8 bits is 255);
//   floats take it as it is. The channel must exist.
// CalcFloatDataMinMax (pic, min, max, ignoreNonFinite)
//   Float and double pictures. NaN has no place in an order and is always
//   skipped; ignoreNonFinite also skips the infinities. False, with min and
//   max untouched, when no sample counts.
// CopyRect
//   Same type and channels; the rectangle must lie inside both pictures.
//   Overlapping rectangles of the same memory are copied as if through a
//   temporary.

#include "CxPicBufAPI.h"
#include "PicBufKernels_p.h"

using namespace picbuf;
using pixelkit::overlaps;

namespace {

bool isKnownType(ExImageDataType t)
{
    return t > IDT_UNKNOWN && t <= IDT_HALF;
}

bool isInterleaved(const SxPicBufInfo& f)
{
    return f.channels == 1 || f.storageFormat != DSF_PLANAR;
}

template <class Op, template <class, class> class Allowed>
bool accumulate(SxPicBuf& acc, const SxPicBuf& frame, bool allowRgbOfRgba)
{
    if (!isUsable(acc) || !isUsable(frame) || !sameGeometry(acc, frame))
        return false;
    if (!isInterleaved(acc) || !isInterleaved(frame))
        return false;
    const bool rgbOfRgba = allowRgbOfRgba && acc.channels == 3 && hasMarkedAlpha(frame);
    if (acc.channels != frame.channels && !rgbOfRgba)
        return false;
    return withSampleTypes(acc.dataType, frame.dataType, [&](auto accTag, auto frameTag) {
        using A = typename decltype(accTag)::type;
        using F = typename decltype(frameTag)::type;
        if constexpr (Allowed<A, F>::value) {
            accumulate_T<Op, A, F>(acc, frame, rgbOfRgba);
            return true;
        } else {
            return false;
        }
    });
}

template <class A, class F>
struct AddAllowed : std::bool_constant<canAdd<A, F>()> {};
template <class A, class F>
struct AddSquaresAllowed : std::bool_constant<canAddSquares<A, F>()> {};
template <class A, class F>
struct SameTypeAllowed : std::is_same<A, F> {};

} // namespace

bool CxPicBufAPI::Add(SxPicBuf& acc, const SxPicBuf& frame)
{
    return accumulate<AddOp, AddAllowed>(acc, frame, true);
}

bool CxPicBufAPI::AddSquares(SxPicBuf& acc, const SxPicBuf& frame)
{
    return accumulate<AddSquareOp, AddSquaresAllowed>(acc, frame, true);
}

bool CxPicBufAPI::Min(SxPicBuf& acc, const SxPicBuf& frame)
{
    return accumulate<MinOp, SameTypeAllowed>(acc, frame, false);
}

bool CxPicBufAPI::Max(SxPicBuf& acc, const SxPicBuf& frame)
{
    return accumulate<MaxOp, SameTypeAllowed>(acc, frame, false);
}

bool CxPicBufAPI::DivideByValue(const SxPicBuf& sum, int divisor, SxPicBuf& out)
{
    if (divisor < 1 || !isUsable(sum) || !isUsable(out) || !sameGeometry(sum, out))
        return false;
    if (!isInterleaved(sum) || !isInterleaved(out))
        return false;
    ExAlpha alpha = ExAlpha::Same;
    if (sum.channels == 3 && hasMarkedAlpha(out))
        alpha = ExAlpha::Added;
    else if (out.channels == 3 && hasMarkedAlpha(sum))
        alpha = ExAlpha::Dropped;
    if (sum.channels != out.channels && alpha == ExAlpha::Same)
        return false;
    return withSampleTypes(sum.dataType, out.dataType, [&](auto sumTag, auto outTag) {
        using S = typename decltype(sumTag)::type;
        using O = typename decltype(outTag)::type;
        if constexpr (isDivisionOutput<O>) {
            divideByValue_T<S, O>(sum, divisor, out, alpha);
            return true;
        } else {
            return false;
        }
    });
}

bool CxPicBufAPI::ExtractChannel(const SxPicBuf& in, SxPicBuf& out, unsigned int channel)
{
    if (!isUsable(in) || !isUsable(out) || out.channels != 1)
        return false;
    if (!isKnownType(in.dataType) || in.dataType != out.dataType)
        return false;
    const bool mosaicCell = in.channels == 1 && isTwoByTwoMosaic(in.colorFilterArray)
                            && in.storageFormat != DSF_NOT_RAW && out.width == in.width / 2
                            && out.height == in.height / 2 && !sameGeometry(in, out);
    if (mosaicCell ? channel >= 4 : !sameGeometry(in, out) || channel >= in.channels || !isInterleaved(in))
        return false;
    if (in.data == out.data && in.channels == 1 && in.linePitch == out.linePitch && !mosaicCell)
        return true;
    if (overlaps(in, out))
        return false;
    return withSampleBytes(in.bytesPerSample(), [&](auto tag) {
        using T = typename decltype(tag)::type;
        if (mosaicCell)
            extractMosaicCell_T<T>(in, out, channel % 2, channel / 2);
        else
            extractChannel_T<T>(in, out, channel);
        return true;
    });
}

bool CxPicBufAPI::ConvertPicToRGB(const SxPicBuf& in, SxPicBuf& out)
{
    if (!isUsable(in) || !isUsable(out) || !sameGeometry(in, out))
        return false;
    if (out.dataType != IDT_UINT8 || out.channels != 4 || !isInterleaved(out) || !isInterleaved(in))
        return false;
    if (overlaps(in, out))
        return false;

    ExRgbSource source = RgbFromGrey;
    SxMosaicCells cells{};
    enum { R, G, B };
    if (in.channels >= 3 && in.isColor) {
        source = RgbFromColour;
    } else if (in.channels == 1 && in.storageFormat != DSF_NOT_RAW) {
        static const SxMosaicCells patterns[] = {
            {{{R, G}, {G, B}}},  // RGGB
            {{{G, R}, {B, G}}},  // GRBG
            {{{G, B}, {R, G}}},  // GBRG
            {{{B, G}, {G, R}}},  // BGGR
        };
        switch (in.colorFilterArray) {
        case CFA_BAYER_RGGB: case CFA_BAYER_GRBG: case CFA_BAYER_GBRG: case CFA_BAYER_BGGR:
            cells = patterns[in.colorFilterArray - CFA_BAYER_RGGB];
            source = RgbFromMosaic;
            break;
        case CFA_RGBR:
            cells = {{{R, G}, {B, R}}};
            source = RgbFromMosaic;
            break;
        default:
            break;
        }
    }
    return withSampleType(in.dataType, [&](auto tag) {
        using T = typename decltype(tag)::type;
        if constexpr (std::is_integral_v<T> && sizeof(T) == 8) {
            return false;
        } else {
            convertToRgb_T<T>(in, out, source, cells);
            return true;
        }
    });
}

bool CxPicBufAPI::FillChannelsValue(SxPicBuf& pic, unsigned int value)
{
    if (!isUsable(pic))
        return false;
    return withSampleType(pic.dataType, [&](auto tag) {
        using T = typename decltype(tag)::type;
        fillSamples_T<T>(pic, sampleFromValue<T>(value));
        return true;
    });
}

bool CxPicBufAPI::FillChannelWithValue(SxPicBuf& pic, unsigned int channel, unsigned short value)
{
    if (!isUsable(pic) || channel >= pic.channels || !isInterleaved(pic))
        return false;
    return withSampleType(pic.dataType, [&](auto tag) {
        using T = typename decltype(tag)::type;
        fillChannel_T<T>(pic, channel, sampleFromValue<T>(value));
        return true;
    });
}

bool CxPicBufAPI::CalcFloatDataMinMax(const SxPicBuf& pic, float& min, float& max, bool ignoreNonFinite)
{
    if (!isUsable(pic))
        return false;
    if (pic.dataType == IDT_FLOAT)
        return floatMinMax_T<float>(pic, ignoreNonFinite, min, max);
    if (pic.dataType == IDT_DOUBLE)
        return floatMinMax_T<double>(pic, ignoreNonFinite, min, max);
    return false;
}

bool CxPicBufAPI::CopyRect(SxPicBuf& dst, unsigned int dx, unsigned int dy, const SxPicBuf& src,
                           unsigned int sx, unsigned int sy, unsigned int width, unsigned int height)
{
    if (!isUsable(dst) || !isUsable(src) || !isKnownType(src.dataType))
        return false;
    if (dst.dataType != src.dataType || dst.channels != src.channels)
        return false;
    if (quint64(sx) + width > src.width || quint64(sy) + height > src.height
        || quint64(dx) + width > dst.width || quint64(dy) + height > dst.height)
        return false;
    if (width == 0 || height == 0)
        return true;

    const quint64 bpp = src.bytesPerPixel();
    const size_t rowBytes = size_t(quint64(width) * bpp);
    const uchar* from = src.data + quint64(sy) * src.linePitch + sx * bpp;
    uchar* to = dst.data + quint64(dy) * dst.linePitch + dx * bpp;
    if (!overlaps(dst, src)) {
        forEachRow(height, rowBytes * 2, [&](quint32 y) {
            std::memcpy(to + quint64(y) * dst.linePitch, from + quint64(y) * src.linePitch, rowBytes);
        });
        return true;
    }
    // Same memory: walk rows away from the overlap.
    if (to > from) {
        for (quint32 y = height; y-- > 0;)
            std::memmove(to + quint64(y) * dst.linePitch, from + quint64(y) * src.linePitch, rowBytes);
    } else {
        for (quint32 y = 0; y < height; ++y)
            std::memmove(to + quint64(y) * dst.linePitch, from + quint64(y) * src.linePitch, rowBytes);
    }
    return true;
}
