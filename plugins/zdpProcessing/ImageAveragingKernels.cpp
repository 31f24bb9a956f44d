#include "ImageAveragingKernels.h"

#include <CxPicBufAPI.h>

namespace {

template <class Q, class Fn>
bool withIntegerOutput(ExImageDataType t, Fn&& fn)
{
    switch (t) {
    case IDT_UINT8: return fn(static_cast<quint8*>(nullptr));
    case IDT_INT8: return fn(static_cast<qint8*>(nullptr));
    case IDT_UINT16: return fn(static_cast<quint16*>(nullptr));
    case IDT_INT16: return fn(static_cast<qint16*>(nullptr));
    case IDT_UINT32: return fn(static_cast<quint32*>(nullptr));
    case IDT_INT32: return fn(static_cast<qint32*>(nullptr));
    default: return false;
    }
}

bool sameSize(const SxPicBufInfo& a, const SxPicBufInfo& b)
{
    return a.width == b.width && a.height == b.height;
}

bool stDevRgba(const SxPicBuf& sum, const SxPicBuf& sumSq, int n, SxPicBuf& out, int scale)
{
    if (sum.dataType != IDT_UINT32)
        return false;
    auto run = [&](auto qTag) {
        using Q = std::remove_pointer_t<decltype(qTag)>;
        switch (out.dataType) {
        case IDT_UINT8: return pic_stDev_rgba_T<quint32, Q, quint8>(sum, sumSq, n, out, scale);
        case IDT_UINT16: return pic_stDev_rgba_T<quint32, Q, quint16>(sum, sumSq, n, out, scale);
        case IDT_UINT32: return pic_stDev_rgba_T<quint32, Q, quint32>(sum, sumSq, n, out, scale);
        default: return false;
        }
    };
    if (sumSq.dataType == IDT_UINT32)
        return run(static_cast<quint32*>(nullptr));
    if (sumSq.dataType == IDT_UINT64)
        return run(static_cast<quint64*>(nullptr));
    return false;
}

} // namespace

bool StDevFromSums(const SxPicBuf& sum, const SxPicBuf& sumSq, int n, SxPicBuf& out, int scale)
{
    if (n < 2 || !sum.data || !sumSq.data || !out.data)
        return false;
    if (!sameSize(sum, out) || !sameSize(sumSq, out) || sumSq.channels != sum.channels)
        return false;
    if (avgk::hasMarkedAlpha(out) && (sum.channels == 3 || sum.channels == 4))
        return stDevRgba(sum, sumSq, n, out, scale);
    if (out.channels != sum.channels)
        return false;

    if (sum.dataType == IDT_UINT32) {
        auto run = [&](auto qTag) {
            using Q = std::remove_pointer_t<decltype(qTag)>;
            return withIntegerOutput<Q>(out.dataType, [&](auto oTag) {
                using O = std::remove_pointer_t<decltype(oTag)>;
                avgk::stDevInt_T<Q, O>(sum, sumSq, quint32(n), out, scale);
                return true;
            });
        };
        if (sumSq.dataType == IDT_UINT32)
            return run(static_cast<quint32*>(nullptr));
        if (sumSq.dataType == IDT_UINT64)
            return run(static_cast<quint64*>(nullptr));
        return false;
    }
    if (sum.dataType == IDT_FLOAT && sumSq.dataType == IDT_FLOAT) {
        if (out.dataType == IDT_FLOAT) {
            avgk::stDevFloat_T<float>(sum, sumSq, n, out, scale);
            return true;
        }
        return withIntegerOutput<float>(out.dataType, [&](auto oTag) {
            using O = std::remove_pointer_t<decltype(oTag)>;
            avgk::stDevFloat_T<O>(sum, sumSq, n, out, scale);
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
        using F = std::remove_pointer_t<decltype(fTag)>;
        using Q = std::remove_pointer_t<decltype(qTag)>;
        for (quint32 y = 0; y < frame.height; ++y)
            avgk::addSumAndSquaresRow_T<F, Q>(sum.row<quint32>(y), sumSq.row<Q>(y), frame.row<F>(y), n);
        return true;
    };
    if (frame.dataType == IDT_UINT8 && sumSq.dataType == IDT_UINT32)
        return rows(static_cast<quint8*>(nullptr), static_cast<quint32*>(nullptr));
    if (frame.dataType == IDT_UINT16 && sumSq.dataType == IDT_UINT64)
        return rows(static_cast<quint16*>(nullptr), static_cast<quint64*>(nullptr));
    return false;
}

bool SubtractWithOffset(const SxPicBuf& lastAverage, SxPicBuf& out, const CxHistoData& histo)
{
    switch (out.dataType) {
    case IDT_UINT8: return SubtractWithOffset_T<unsigned char, int>(lastAverage, out, histo);
    case IDT_INT8: return SubtractWithOffset_T<signed char, int>(lastAverage, out, histo);
    case IDT_UINT16: return SubtractWithOffset_T<unsigned short, int>(lastAverage, out, histo);
    case IDT_INT16: return SubtractWithOffset_T<short, int>(lastAverage, out, histo);
    case IDT_UINT32: return SubtractWithOffset_T<unsigned int, long long>(lastAverage, out, histo);
    case IDT_INT32: return SubtractWithOffset_T<int, long long>(lastAverage, out, histo);
    case IDT_FLOAT:
        if (!SubtractWithOffset_negative_T<float, float>(lastAverage, out, histo))
            return false;
        CxPicBufAPI::CalcFloatDataMinMax(out, out.floatMin, out.floatMax, false);
        return true;
    default: return false;
    }
}

bool SetAsSubtractingGreyImage(SxPicBuf& out, const CxHistoData& histo)
{
    switch (out.dataType) {
    case IDT_UINT8: return SetAsSubtractingGreyImage_T<unsigned char>(out, histo);
    case IDT_INT8: return SetAsSubtractingGreyImage_T<signed char>(out, histo);
    case IDT_UINT16: return SetAsSubtractingGreyImage_T<unsigned short>(out, histo);
    case IDT_INT16: return SetAsSubtractingGreyImage_T<short>(out, histo);
    case IDT_UINT32: return SetAsSubtractingGreyImage_T<unsigned int>(out, histo);
    case IDT_INT32: return SetAsSubtractingGreyImage_T<int>(out, histo);
    case IDT_FLOAT: return SetAsSubtractingGreyImage_T<float>(out, histo);
    default: return false;
    }
}

bool MinTouches(SxPicBuf& min, SxPicBuf& touches, const SxPicBuf& frame)
{
    // Signed RGBA frames have no kernel in the colour form; the 32-bit and
    // wider types fall to the plain form.
    const bool rgba = frame.channels == 4 && !(frame.dataType >= IDT_INT32 && frame.dataType <= IDT_DOUBLE)
                      && frame.storageFormat == DSF_PACKED && frame.isColor;
    auto run = [&](auto cTag) -> bool {
        using C = std::remove_pointer_t<decltype(cTag)>;
        auto go = [&](auto tTag) {
            using T = std::remove_pointer_t<decltype(tTag)>;
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
        if (rgba) {
            switch (frame.dataType) {
            case IDT_UINT8: return go(static_cast<quint8*>(nullptr));
            case IDT_UINT16: return go(static_cast<quint16*>(nullptr));
            default: return false;
            }
        }
        switch (frame.dataType) {
        case IDT_UINT8: return go(static_cast<quint8*>(nullptr));
        case IDT_INT8: return go(static_cast<qint8*>(nullptr));
        case IDT_UINT16: return go(static_cast<quint16*>(nullptr));
        case IDT_INT16: return go(static_cast<qint16*>(nullptr));
        case IDT_UINT32: return go(static_cast<quint32*>(nullptr));
        case IDT_INT32: return go(static_cast<qint32*>(nullptr));
        case IDT_FLOAT: return go(static_cast<float*>(nullptr));
        default: return false;
        }
    };
    if (touches.dataType == IDT_UINT8)
        return run(static_cast<quint8*>(nullptr));
    if (touches.dataType == IDT_UINT16)
        return run(static_cast<quint16*>(nullptr));
    return false;
}

int LineAveraging(SxPicBuf& pic, int mode)
{
    if (mode != 1 && mode != 2)
        return 1;
    auto run = [&](auto tTag, auto aTag) {
        using T = std::remove_pointer_t<decltype(tTag)>;
        using A = std::remove_pointer_t<decltype(aTag)>;
        if (mode == 1)
            LineAverageRows_T<T, A>(pic);
        else
            LineAverageColumns_T<T, A>(pic);
        return 1;
    };
    switch (pic.dataType) {
    case IDT_UINT8: return run(static_cast<unsigned char*>(nullptr), static_cast<unsigned int*>(nullptr));
    case IDT_INT8: return run(static_cast<signed char*>(nullptr), static_cast<int*>(nullptr));
    case IDT_UINT16: return run(static_cast<unsigned short*>(nullptr), static_cast<unsigned int*>(nullptr));
    case IDT_INT16: return run(static_cast<short*>(nullptr), static_cast<int*>(nullptr));
    case IDT_UINT32:
        return run(static_cast<unsigned int*>(nullptr), static_cast<unsigned long long*>(nullptr));
    case IDT_INT32: return run(static_cast<int*>(nullptr), static_cast<long long*>(nullptr));
    case IDT_FLOAT: return run(static_cast<float*>(nullptr), static_cast<float*>(nullptr));
    default: return 0;
    }
}
