#include "FFT1DCnbl.h"
#include "FFT1DWidget.h"
#include "FFT2DCnbl.h"
#include "NodeKit.h"

#include <CxFFT.h>
#include <CxHsiCameraParams.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>

#include <QtCore/QMutexLocker>
#include <QtXml/QDomDocument>
#include <QtXml/QDomElement>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// Chain document attributes; the names are part of the saved-file format.
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

int readInt(const QDomElement& element, const QString& name, int current)
{
    if (!element.hasAttribute(name))
        return current;
    return element.attribute(name).toInt(nullptr, 10);
}

bool alignedSamples(const SxPicBuf& pic)
{
    const unsigned s = pic.bytesPerSample();
    return pic.data && quintptr(pic.data) % s == 0 && pic.effectiveLinePitch() % s == 0
        && pic.effectiveLinePitch() >= pic.packedLineBytes();
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

bool CxFFT1DCnbl::acceptsDataFrom(CxChainable* predecessor)
{
    return qobject_cast<CxImageProvider*>(predecessor) != nullptr;
}

int CxFFT1DCnbl::buffersCountInMemoryPool() const
{
    return 1;
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

bool CxFFT1DCnbl::hasConfigurationWidget() const
{
    return true;
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
    setChannel(readInt(element, kChannel, channel()));
    setTranformType(ExTransformType(readInt(element, kTransType, transformType())));
    setIncludeDC(readInt(element, kIncludeDC, includeDC()) != 0);
    setAxisYLogarithmic(readInt(element, kLogarY, axisYLogarithmic()) != 0);
    setGridXVisible(readInt(element, kGridX, gridXVisible()) != 0);
    setGridYVisible(readInt(element, kGridY, gridYVisible()) != 0);
    setAutoScaleY(readInt(element, kAutoScaleY, autoScaleY()) != 0);
    if (element.hasAttribute(kMinY))
        setMinY(element.attribute(kMinY).toDouble());
    if (element.hasAttribute(kMaxY))
        setMaxY(element.attribute(kMaxY).toDouble());
    return result;
}

bool CxFFT1DCnbl::hasHelp() const
{
    return true;
}

QString CxFFT1DCnbl::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return tr("Performs the 1D Fast Fourier Transform on the rows or columns of the input image.");
}

void CxFFT1DCnbl::setChannel(int channel)
{
    {
        QMutexLocker lock(nodeMutex());
        if (m_channel == channel)
            return;
        m_channel = channel;
    }
    emit titleChanged(this);
}

int CxFFT1DCnbl::channel() const
{
    QMutexLocker lock(nodeMutex());
    return m_channel;
}

void CxFFT1DCnbl::setTranformType(ExTransformType type)
{
    {
        QMutexLocker lock(nodeMutex());
        if (m_transformType == type)
            return;
        m_transformType = type;
    }
    emit titleChanged(this);
}

CxFFT1DCnbl::ExTransformType CxFFT1DCnbl::transformType() const
{
    QMutexLocker lock(nodeMutex());
    return m_transformType;
}

void CxFFT1DCnbl::setIncludeDC(bool on)
{
    QMutexLocker lock(nodeMutex());
    m_includeDC = on;
}

bool CxFFT1DCnbl::includeDC() const
{
    QMutexLocker lock(nodeMutex());
    return m_includeDC;
}

void CxFFT1DCnbl::setAxisYLogarithmic(bool on)
{
    QMutexLocker lock(nodeMutex());
    m_plot->setAxisYLogarithmic(on);
}

bool CxFFT1DCnbl::axisYLogarithmic() const
{
    QMutexLocker lock(nodeMutex());
    return m_plot->axisYLogarithmic();
}

void CxFFT1DCnbl::setGridXVisible(bool on)
{
    QMutexLocker lock(nodeMutex());
    m_plot->setGridXVisible(on);
}

bool CxFFT1DCnbl::gridXVisible() const
{
    QMutexLocker lock(nodeMutex());
    return m_plot->gridXVisible();
}

void CxFFT1DCnbl::setGridYVisible(bool on)
{
    QMutexLocker lock(nodeMutex());
    m_plot->setGridYVisible(on);
}

bool CxFFT1DCnbl::gridYVisible() const
{
    QMutexLocker lock(nodeMutex());
    return m_plot->gridYVisible();
}

void CxFFT1DCnbl::setAutoScaleY(bool on)
{
    QMutexLocker lock(nodeMutex());
    m_autoScaleY = on;
}

bool CxFFT1DCnbl::autoScaleY() const
{
    QMutexLocker lock(nodeMutex());
    return m_autoScaleY;
}

void CxFFT1DCnbl::setMinY(double v)
{
    QMutexLocker lock(nodeMutex());
    m_minY = v;
}

double CxFFT1DCnbl::minY() const
{
    QMutexLocker lock(nodeMutex());
    return m_minY;
}

void CxFFT1DCnbl::setMaxY(double v)
{
    QMutexLocker lock(nodeMutex());
    m_maxY = v;
}

double CxFFT1DCnbl::maxY() const
{
    QMutexLocker lock(nodeMutex());
    return m_maxY;
}

void CxFFT1DCnbl::inputFormat(SxPicBufInfo& info, CxImageMetadata* meta) const
{
    QMutexLocker lock(nodeMutex());
    info = m_inInfo;
    if (meta)
        *meta = m_inMeta;
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
try {
    if (!CxFFT2DCnbl::isTransformableFormat(in))
        return false;
    out = in;
    out.width = OutputWidth;
    out.height = OutputHeight;
    out.linePitch = OutputWidth * 4;
    out.channels = 4;
    out.bitsPerSample = 8;
    out.dataType = IDT_UINT8;
    out.storageFormat = DSF_PACKED;
    out.colorFilterArray = CFA_NONE;
    out.isColor = true;
    if (inMeta && outMeta) {
        *outMeta = *inMeta;
        // The plot's colour order is the host's convention for colour
        // pictures, told by isColor; the description stays the input's.
        outMeta->setColorFilterArray(CFA_NONE);
    }
    return true;
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "queryOutputImageInfo", e);
    return false;
}

void CxFFT1DCnbl::setupStart()
try {
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
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "setupStart", e);
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
try {
    if (!data)
        return nullptr;
    if (state() == StateStopping)
        return data;
    auto* input = qobject_cast<CxImageData*>(data);
    if (!input)
        return data;

    const SxPicBuf* inPic = input->picBuf();
    const auto complain = [&](const QString& message) {
        if (errorMessage().isEmpty())
            setErrorMessage(message);
        return data;
    };
    SxPicBufInfo outInfo;
    CxImageMetadata outMeta;
    if ((inPic->dataType != IDT_UINT8 && inPic->dataType != IDT_UINT16)
        || !queryOutputImageInfo(*inPic, outInfo, input->metadata(), &outMeta))
        return complain(tr("The input image data type is not supported."));
    if (!canDraw())
        return complain(tr("The spectrum cannot be drawn in a program without a graphical user interface."));
    if (!inPic->data)
        return nullptr;

    const int ch = channel();
    const SxPicBuf* pic = fft_selectChannel(*inPic, input->metadata(), ch, m_extract);
    if (!pic)
        return complain(tr("The input image has no channel %1.").arg(ch));
    // A filter zone that misses the picture leaves nothing to analyse.
    if (pic->width == 0 || pic->height == 0)
        return complain(tr("Channel %1 has no samples inside the input image.").arg(ch));
    const ExTransformType type = transformType();
    const quint64 n = type == rows ? pic->width : pic->height;
    if (m_n == 0 || n != quint64(m_n) || pic->width == 0 || pic->height == 0 || !alignedSamples(*pic)
        || (type == rows && m_columnSums.size() < pic->width))
        return nullptr;

    SxPicBuf outPic;
    if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, outPic, outInfo, false))
        return nullptr;

    if (pic->dataType == IDT_UINT8)
        fft1d_meanProfile_T<quint8>(*pic, type, m_meanLine.get(), m_columnSums.data(), m_columnBlock.data());
    else
        fft1d_meanProfile_T<quint16>(*pic, type, m_meanLine.get(), m_columnSums.data(), m_columnBlock.data());
    if (!CxFFT::Calc1D(m_meanLine.get(), m_re.get(), m_im.get(), m_fft1, m_fft2, m_fft3)) {
        CxPicBufAPI::FreePicBuf(outPic, true);
        return nullptr;
    }
    const int start = calc_disp_fft_start_idx(m_n, m_runIncludeDC);
    const int dispLen = int(m_amplitudes.size());
    double max = 0.0, min = 0.0;
    calc_amplitude(m_re.get(), m_im.get(), m_amplitudes, dispLen + start, max, min, start);

    {
        QMutexLocker lock(nodeMutex());
        const double lower = m_autoScaleY ? min : m_minY;
        const double upper = m_autoScaleY ? max : m_maxY;
        QList<double> ticks;
        QList<QString> labels;
        getYTicksAndLabels(lower, upper, m_plot->axisYLogarithmic(), ticks, labels);
        m_plot->render(outPic.data, int(outPic.width), int(outPic.height), qsizetype(outPic.effectiveLinePitch()),
                       m_keys, m_amplitudes, lower, upper, ticks, labels);
    }

    outPic.exposureTimeUs = inPic->exposureTimeUs;
    outPic.timestampMs = inPic->timestampMs;
    outPic.copyPicAdditionalData(*inPic);
    auto* output = new CxImageData;
    output->setPicBuf(outPic);
    output->setMetadata(&outMeta);
    delete data;
    return output;
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "processData", e);
    return nullptr;
}
