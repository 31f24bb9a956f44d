#include "ImageAveragingKernels.h"

#include <CxPicBufAPI.h>

namespace {

using pixelkit::Only;
using pixelkit::withSampleTypeIn;

using IntegerTypes = Only<quint8, qint8, quint16, qint16, quint32, qint32>;
using KernelTypes = Only<quint8, qint8, quint16, qint16, quint32, qint32, float>;

// Sums of squares: 32-bit for 8-bit frames, 64-bit for 16-bit ones.
template <class Fn>
bool withSquaresType(ExImageDataType t, Fn&& fn)
{
    return withSampleTypeIn<Only<quint32, quint64>>(t, fn);
}

template <class Tag>
using TypeOf = typename Tag::type;

bool stDevRgba(const SxPicBuf& sum, const SxPicBuf& sumSq, int n, SxPicBuf& out, int scale)
{
    if (sum.dataType != IDT_UINT32)
        return false;
    return withSquaresType(sumSq.dataType, [&](auto qTag) {
        return withSampleTypeIn<Only<quint8, quint16, quint32>>(out.dataType, [&](auto oTag) {
            return pic_stDev_rgba_T<quint32, TypeOf<decltype(qTag)>, TypeOf<decltype(oTag)>>(sum, sumSq, n, out,
                                                                                         scale);
        });
    });
}

} // namespace

bool StDevFromSums(const SxPicBuf& sum, const SxPicBuf& sumSq, int n, SxPicBuf& out, int scale)
{
    if (n < 2 || !sum.data || !sumSq.data || !out.data)
        return false;
    if (!pixelkit::sameGeometry(sum, out) || !pixelkit::sameGeometry(sumSq, out) || sumSq.channels != sum.channels)
        return false;
    if (pixelkit::hasMarkedAlpha(out) && (sum.channels == 3 || sum.channels == 4))
        return stDevRgba(sum, sumSq, n, out, scale);
    if (out.channels != sum.channels)
        return false;

    if (sum.dataType == IDT_UINT32) {
        return withSquaresType(sumSq.dataType, [&](auto qTag) {
            return withSampleTypeIn<IntegerTypes>(out.dataType, [&](auto oTag) {
                avgk::stDevInt_T<TypeOf<decltype(qTag)>, TypeOf<decltype(oTag)>>(sum, sumSq, quint32(n), out, scale);
                return true;
            });
        });
    }
    if (sum.dataType == IDT_FLOAT && sumSq.dataType == IDT_FLOAT) {
        return withSampleTypeIn<KernelTypes>(out.dataType, [&](auto oTag) {
            avgk::stDevFloat_T<TypeOf<decltype(oTag)>>(sum, sumSq, n, out, scale);
            return true;
        });
    }
    return false;
}

bool AddSumAndSquares(SxPicBuf& sum, SxPicBuf& sumSq, const SxPicBuf& frame)
{
    const bool sameShape = sum.width == frame.width && sum.height == frame.height
                           && sumSq.width == frame.width && sumSq.height == frame.height
                           && sum.channels == frame.channels && sumSq.channels == frame.channels;
    if (!sameShape || !sum.data || !sumSq.data || !frame.data || sum.dataType != IDT_UINT32
        || (frame.channels > 1 && frame.storageFormat == DSF_PLANAR))
        return false;
    const size_t n = size_t(frame.width) * frame.channels;
    auto rows = [&](auto fTag, auto qTag) {
        using F = TypeOf<decltype(fTag)>;
        using Q = TypeOf<decltype(qTag)>;
        for (quint32 y = 0; y < frame.height; ++y)
            avgk::addSumAndSquaresRow_T<F, Q>(sum.row<quint32>(y), sumSq.row<Q>(y), frame.row<F>(y), n);
        return true;
    };
    if (frame.dataType == IDT_UINT8 && sumSq.dataType == IDT_UINT32)
        return rows(pixelkit::Tag<quint8>{}, pixelkit::Tag<quint32>{});
    if (frame.dataType == IDT_UINT16 && sumSq.dataType == IDT_UINT64)
        return rows(pixelkit::Tag<quint16>{}, pixelkit::Tag<quint64>{});
    return false;
}

bool SubtractWithOffset(const SxPicBuf& lastAverage, SxPicBuf& out, const CxHistoData& histo)
{
    return withSampleTypeIn<KernelTypes>(out.dataType, [&](auto tag) {
        using T = TypeOf<decltype(tag)>;
        if constexpr (std::is_floating_point_v<T>) {
            if (!SubtractWithOffset_negative_T<T, T>(lastAverage, out, histo))
                return false;
            CxPicBufAPI::CalcFloatDataMinMax(out, out.floatMin, out.floatMax, false);
            return true;
        } else {
            // The difference plus the level offset needs one more bit than the
            // samples have.
            using D = std::conditional_t<(sizeof(T) <= 2), int, long long>;
            return SubtractWithOffset_T<T, D>(lastAverage, out, histo);
        }
    });
}

bool SetAsSubtractingGreyImage(SxPicBuf& out, const CxHistoData& histo)
{
    return withSampleTypeIn<KernelTypes>(out.dataType, [&](auto tag) {
        return SetAsSubtractingGreyImage_T<TypeOf<decltype(tag)>>(out, histo);
    });
}

bool MinTouches(SxPicBuf& min, SxPicBuf& touches, const SxPicBuf& frame)
{
    // Signed RGBA frames have no kernel in the colour form; the 32-bit and
    // wider types fall to the plain form.
    const bool rgba = pixelkit::hasMarkedAlpha(frame) && !(frame.dataType >= IDT_INT32 && frame.dataType <= IDT_DOUBLE);
    return withSampleTypeIn<Only<quint8, quint16>>(touches.dataType, [&](auto cTag) -> bool {
        using C = TypeOf<decltype(cTag)>;
        auto go = [&](auto tTag) {
            using T = TypeOf<decltype(tTag)>;
            if (frame.height == 0 || frame.width == 0)
                return true;
            if (!frame.data || !min.data || !touches.data || min.dataType != frame.dataType
                || min.channels != frame.channels || touches.channels != frame.channels
                || min.width != frame.width || touches.width != frame.width
                || min.height < frame.height || touches.height < frame.height)
                return false;
            MinTouches_T<C, T>(min, touches, frame, rgba);
            return true;
        };
        if (rgba)
            return withSampleTypeIn<Only<quint8, quint16>>(frame.dataType, go);
        return withSampleTypeIn<KernelTypes>(frame.dataType, go);
    });
}

int LineAveraging(SxPicBuf& pic, int mode)
{
    if (mode != 1 && mode != 2)
        return 1;
    return withSampleTypeIn<KernelTypes>(pic.dataType, [&](auto tag) {
        using T = TypeOf<decltype(tag)>;
        // Row sums: 32 bits hold a row of 16-bit samples, wider samples sum
        // in 64 bits of their signedness, floats in float.
        using Wide = std::conditional_t<(sizeof(T) <= 2), int, long long>;
        using A0 = std::conditional_t<std::is_signed_v<T>, Wide, std::make_unsigned_t<Wide>>;
        using A = std::conditional_t<std::is_floating_point_v<T>, float, A0>;
        if (mode == 1)
            LineAverageRows_T<T, A>(pic);
        else
            LineAverageColumns_T<T, A>(pic);
        return 1;
    });
}
