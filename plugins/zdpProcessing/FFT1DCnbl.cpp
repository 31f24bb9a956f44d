#include "FFT1DCnbl.h"
#include "FFT1DWidget.h"
#include "FFT2DCnbl.h"

#include <CxFFT.h>
#include <KitPicture.h>

#include <QtXml/QDomDocument>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

const QString kChannel = QStringLiteral("channel");
const QString kTransType = QStringLiteral("transtype");
const QString kIncludeDC = QStringLiteral("includeDC");
const QString kLogarY = QStringLiteral("logarY");
const QString kGridX = QStringLiteral("gridX");
const QString kGridY = QStringLiteral("gridY");
const QString kAutoScaleY = QStringLiteral("autoScaleY");
const QString kMinY = QStringLiteral("minY");
const QString kMaxY = QStringLiteral("maxY");

// A 32-bit partial sum holds 65537 samples of 16 bits; blocks of 65536 keep
// every partial exact before it is widened.
constexpr quint32 kBlock = 65536;

constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingPassed, nodekit::PoolFixed};

bool alignedSamples(const SxPicBuf& pic)
{
    return pic.data && pixelkit::samplesAligned(pic) && pixelkit::rowsFit(pic);
}

} // namespace

int calc_disp_fft_len(int n, bool includeDC)
{
    if (n % 2 != 0)
        return n / 2;
    return includeDC ? n / 2 : n / 2 - 1;
}

int calc_disp_fft_start_idx(int n, bool includeDC)
{
    return n / 2 + (includeDC ? 0 : 1);
}

void calc_amplitude(const float* re, const float* im, QList<double>& out, int end, double& max, double& min,
                    int start)
{
    max = 0.0;
    min = std::numeric_limits<double>::max();
    if (start >= end)
        return;
    double* dst = out.data();
    for (int i = start; i < end; ++i) {
        const double a = std::sqrt(re[i] * re[i] + im[i] * im[i]);
        dst[i - start] = a;
        max = std::max(max, a);
        min = std::min(min, a);
    }
}

template <class T>
void fft1d_meanProfile_T(const SxPicBuf& pic, CxFFT1DCnbl::ExTransformType type, float* line,
                         quint64* columnSums, quint32* columnBlock)
{
    const quint32 w = pic.width, h = pic.height;
    const quint64 pitch = pic.effectiveLinePitch();
    const auto rowAt = [&](quint32 y) { return reinterpret_cast<const T*>(pic.data + y * pitch); };
    if (type == CxFFT1DCnbl::rows) {
        std::fill(columnSums, columnSums + w, quint64(0));
        for (quint32 y0 = 0; y0 < h; y0 += kBlock) {
            std::fill(columnBlock, columnBlock + w, 0u);
            const quint32 y1 = std::min(h, y0 + kBlock);
            for (quint32 y = y0; y < y1; ++y) {
                const T* __restrict src = rowAt(y);
                quint32* __restrict acc = columnBlock;
#pragma omp simd
                for (quint32 x = 0; x < w; ++x)
                    acc[x] += src[x];
            }
            for (quint32 x = 0; x < w; ++x)
                columnSums[x] += columnBlock[x];
        }
        for (quint32 x = 0; x < w; ++x)
            line[x] = float(columnSums[x]) / float(h);
        return;
    }
    for (quint32 y = 0; y < h; ++y) {
        const T* __restrict src = rowAt(y);
        quint64 sum = 0;
        for (quint32 x0 = 0; x0 < w; x0 += kBlock) {
            const quint32 x1 = std::min(w, x0 + kBlock);
            quint32 part = 0;
#pragma omp simd reduction(+ : part)
            for (quint32 x = x0; x < x1; ++x)
                part += src[x];
            sum += part;
        }
        line[y] = float(sum) / float(w);
    }
}

template void fft1d_meanProfile_T<quint8>(const SxPicBuf&, CxFFT1DCnbl::ExTransformType, float*, quint64*,
                                          quint32*);
template void fft1d_meanProfile_T<quint16>(const SxPicBuf&, CxFFT1DCnbl::ExTransformType, float*, quint64*,
                                           quint32*);

CxFFT1DCnbl::CxFFT1DCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor)),
      m_plot(new CxFFT1DSpectrumPlot)
{
}

CxFFT1DCnbl::~CxFFT1DCnbl()
{
    setupStop();
}

QString CxFFT1DCnbl::title() const
{
    SxPicBufInfo info;
    CxImageMetadata meta;
    inputFormat(info, &meta);
    const QString name = CxFFT2DCnbl::channelNameForIndex(channel(), info, &meta.hsiCameraParams());
    return tr("FFT 1D(%1, %2)").arg(name, transformType() == rows ? tr("rows") : tr("cols"));
}

CxChainable* CxFFT1DCnbl::clone()
{
    auto* copy = new CxFFT1DCnbl;
    copy->setChannel(channel());
    copy->setTranformType(transformType());
    return copy;
}

QWidget* CxFFT1DCnbl::configurationWidget()
{
    return new CxFFT1DWidget(this);
}

bool CxFFT1DCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kChannel, channel());
    element.setAttribute(kTransType, int(transformType()));
    element.setAttribute(kIncludeDC, qint64(includeDC()));
    element.setAttribute(kLogarY, qint64(axisYLogarithmic()));
    element.setAttribute(kGridX, qint64(gridXVisible()));
    element.setAttribute(kGridY, qint64(gridYVisible()));
    element.setAttribute(kAutoScaleY, qint64(autoScaleY()));
    element.setAttribute(kMinY, minY());
    element.setAttribute(kMaxY, maxY());
    return result;
}

bool CxFFT1DCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    using nodekit::attribute;
    using nodekit::On;
    setChannel(attribute(element, kChannel, channel()));
    setTranformType(attribute(element, kTransType, transformType()));
    setIncludeDC(attribute(element, kIncludeDC, includeDC(), On::NonZero));
    setAxisYLogarithmic(attribute(element, kLogarY, axisYLogarithmic(), On::NonZero));
    setGridXVisible(attribute(element, kGridX, gridXVisible(), On::NonZero));
    setGridYVisible(attribute(element, kGridY, gridYVisible(), On::NonZero));
    setAutoScaleY(attribute(element, kAutoScaleY, autoScaleY(), On::NonZero));
    setMinY(attribute(element, kMinY, minY()));
    setMaxY(attribute(element, kMaxY, maxY()));
    return result;
}

QString CxFFT1DCnbl::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return tr("Performs the 1D Fast Fourier Transform on the rows or columns of the input image.");
}

void CxFFT1DCnbl::setChannel(int channel)
{
    if (nodekit::lockedSet(this, m_channel, channel))
        emit titleChanged(this);
}

void CxFFT1DCnbl::setTranformType(ExTransformType type)
{
    if (nodekit::lockedSet(this, m_transformType, type))
        emit titleChanged(this);
}

void CxFFT1DCnbl::inputFormat(SxPicBufInfo& info, CxImageMetadata* meta) const
{
    nodekit::locked(this, [&] {
        info = m_inInfo;
        if (meta)
            *meta = m_inMeta;
    });
}

bool CxFFT1DCnbl::canDraw() const
{
    return m_plot->canDraw();
}

bool CxFFT1DCnbl::picInfoForExtract(SxPicBufInfo& info) const
{
    QMutexLocker lock(nodeMutex());
    info = m_inInfo;
    info.isColor = true;
    info.channels = 1;
    if (m_channel >= 0 && info.colorFilterArray == CFA_HSI_MOSAIC) {
        // The first zone sizes the buffer whichever band is chosen, as far
        // as the zone lies inside the picture: a description may claim a
        // sensor far larger than the frame.
        CxHsiCameraParams::CxFilterZone zone;
        if (nodekit::firstFilterZone(m_inMeta.hsiCameraParams(), zone))
            nodekit::bandSize(zone, info.width, info.height, info.width, info.height, true);
    } else if (m_channel >= 0 && info.colorFilterArray != CFA_NONE) {
        info.width >>= 1;
        info.height >>= 1;
    }
    const quint64 pitch = (quint64(info.width) * info.bytesPerSample() + 255) & ~quint64(255);
    if (pitch > std::numeric_limits<quint32>::max())
        return false;
    info.linePitch = quint32(pitch);
    return true;
}

bool CxFFT1DCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                       const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        if (!CxFFT2DCnbl::isTransformableFormat(in))
            return false;
        out = in;
        out.width = OutputWidth;
        out.height = OutputHeight;
        out.linePitch = OutputWidth * 4;
        nodekit::makeColour8(out);
        if (inMeta && outMeta) {
            *outMeta = *inMeta;
            // The plot's colour order is the host's convention for colour
            // pictures, told by isColor; the description stays the input's.
            outMeta->setColorFilterArray(CFA_NONE);
        }
        return true;
    });
}

void CxFFT1DCnbl::setupStart()
{
    nodekit::guarded(this, "setupStart", [&] {
        setupStop();
        SxPicBufInfo in, out;
        CxImageMetadata inMeta;
        if (!currentInputImageInfo(in, &inMeta))
            return;
        {
            QMutexLocker lock(nodeMutex());
            if (m_channel < 0)
                m_channel = 0;
            m_inInfo = in;
            m_inMeta = inMeta;
        }
        emit titleChanged(this);
        if (!queryOutputImageInfo(in, out, &inMeta, nullptr))
            return;

        SxPicBufInfo analysed;
        if (!picInfoForExtract(analysed))
            return;
        const int ch = channel();
        if (in.channels >= 2 || (in.colorFilterArray != CFA_NONE && ch >= 0))
            CxPicBufAPI::AllocPicBufFromHeap(m_extract, analysed, true, 0);

        const quint32 n = transformType() == rows ? analysed.width : analysed.height;
        if (n == 0 || n > quint32(std::numeric_limits<int>::max()))
            return;
        if (!CxFFT::Alloc1D(int(n), m_fft1, m_fft2, m_fft3)) {
            CxFFT::Free1D(m_fft1, m_fft2, m_fft3);
            m_fft1 = m_fft2 = m_fft3 = nullptr;
            return;
        }
        m_n = int(n);
        m_meanLine.reset(new float[n]);
        m_re.reset(new float[n]);
        m_im.reset(new float[n]);
        m_columnSums.assign(analysed.width, 0);
        m_columnBlock.assign(analysed.width, 0);

        // Fixed for the run: the bins shown must match the keys made here.
        m_runIncludeDC = includeDC();
        const int dispLen = std::max(0, calc_disp_fft_len(m_n, m_runIncludeDC));
        m_keys.resize(dispLen);
        m_amplitudes.resize(dispLen);
        for (int i = 0; i < dispLen; ++i)
            m_keys[i] = double(i) / (2.0 * dispLen);

        QMutexLocker lock(nodeMutex());
        m_plot->scaleTo(int(out.width), int(out.height));
    });
}

void CxFFT1DCnbl::setupStop()
{
    if (m_fft1 || m_fft2 || m_fft3)
        CxFFT::Free1D(m_fft1, m_fft2, m_fft3);
    m_fft1 = m_fft2 = m_fft3 = nullptr;
    CxPicBufAPI::FreePicBuf(m_extract, true);
    m_meanLine.reset();
    m_re.reset();
    m_im.reset();
    m_n = 0;
}

IxChainData* CxFFT1DCnbl::processData(IxChainData* data)
{
    const SxPicBuf* pic = nullptr;
    const ExTransformType type = transformType();
    const auto admit = [&](const nodekit::Frame& f) {
        const auto complain = [&](const QString& message) {
            nodekit::tell(this, message);
            return nodekit::PassOn;
        };
        SxPicBufInfo outInfo;
        if ((f.in.dataType != IDT_UINT8 && f.in.dataType != IDT_UINT16)
            || !queryOutputImageInfo(f.in, outInfo, f.meta, nullptr))
            return complain(tr("The input image data type is not supported."));
        if (!canDraw())
            return complain(tr("The spectrum cannot be drawn in a program without a graphical user interface."));
        if (!f.in.data)
            return nodekit::Drop;
        const int ch = channel();
        pic = fft_selectChannel(f.in, f.meta, ch, m_extract);
        if (!pic)
            return complain(tr("The input image has no channel %1.").arg(ch));
        // A filter zone that misses the picture leaves nothing to analyse.
        if (pic->width == 0 || pic->height == 0)
            return complain(tr("Channel %1 has no samples inside the input image.").arg(ch));
        const quint64 n = type == rows ? pic->width : pic->height;
        if (m_n == 0 || n != quint64(m_n) || !alignedSamples(*pic)
            || (type == rows && m_columnSums.size() < pic->width))
            return nodekit::Drop;
        return nodekit::Go;
    };
    return nodekit::processFrame(this, data, kFrame, admit, [&](nodekit::Frame& f) {
        if (pic->dataType == IDT_UINT8)
            fft1d_meanProfile_T<quint8>(*pic, type, m_meanLine.get(), m_columnSums.data(), m_columnBlock.data());
        else
            fft1d_meanProfile_T<quint16>(*pic, type, m_meanLine.get(), m_columnSums.data(), m_columnBlock.data());
        if (!CxFFT::Calc1D(m_meanLine.get(), m_re.get(), m_im.get(), m_fft1, m_fft2, m_fft3))
            return nodekit::Drop;
        const int start = calc_disp_fft_start_idx(m_n, m_runIncludeDC);
        const int dispLen = int(m_amplitudes.size());
        double max = 0.0, min = 0.0;
        calc_amplitude(m_re.get(), m_im.get(), m_amplitudes, dispLen + start, max, min, start);

        QMutexLocker lock(nodeMutex());
        const double lower = m_autoScaleY ? min : m_minY;
        const double upper = m_autoScaleY ? max : m_maxY;
        QList<double> ticks;
        QList<QString> labels;
        getYTicksAndLabels(lower, upper, m_plot->axisYLogarithmic(), ticks, labels);
        m_plot->render(f.out.data, int(f.out.width), int(f.out.height), qsizetype(f.out.effectiveLinePitch()),
                       m_keys, m_amplitudes, lower, upper, ticks, labels);
        return nodekit::Go;
    });
}
