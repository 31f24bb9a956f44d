#include "LutInmapCnbl.h"
#include "LutInmapWidget.h"
#include "NodeKit.h"

#include <CxHistoData.h>
#include <CxImageData.h>
#include <CxLut.h>
#include <CxPicBufAPI.h>
#include <CxPicBufMeas.h>
#include <SxPicBuf.h>

#include <QtCore/QRect>
#include <QtXml/QDomDocument>
#include <QtXml/QDomElement>

#include <cmath>
#include <limits>

namespace {

// Chain document attributes; the names are part of the saved-file format.
const QString kMapToRgbAttribute = QStringLiteral("MapToRGB");
const QString kPseudoColorAttribute = QStringLiteral("PseudoColor");
const QString kAutoMinMaxAttribute = QStringLiteral("AutoMinMax");
const QString kAutoToleranceAttribute = QStringLiteral("AutoTolerance");
const QString kSrcMinAttribute = QStringLiteral("SrcMin");
const QString kSrcMaxAttribute = QStringLiteral("SrcMax");
const QString kGammaAttribute = QStringLiteral("Gamma");

// Bins, minimum/maximum, mean and deviation: what the histogram view of the
// host asks for too, so the measurement code path is the common one.
constexpr int kHistogramFlags = 15;

bool positiveInteger(const QString& text)
{
    bool ok = false;
    const int v = text.toInt(&ok, 10);
    return ok && v > 0;
}

// Truncated towards zero; texts that are no number, NaN included, give 0 and
// values beyond the 32-bit range stop at its ends.
int truncatedInt(const QString& text)
{
    bool ok = false;
    const double v = text.toDouble(&ok);
    if (!ok || std::isnan(v))
        return 0;
    if (v >= double(std::numeric_limits<int>::max()))
        return std::numeric_limits<int>::max();
    if (v <= double(std::numeric_limits<int>::min()))
        return std::numeric_limits<int>::min();
    return int(v);
}

} // namespace

CxLutInmapCnbl::CxLutInmapCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor))
{
    m_measureTimer.start();
}

CxLutInmapCnbl::~CxLutInmapCnbl() = default;

QString CxLutInmapCnbl::title() const
{
    return tr("LUT Mapping");
}

bool CxLutInmapCnbl::acceptsDataFrom(CxChainable* predecessor)
{
    return qobject_cast<CxImageProvider*>(predecessor) != nullptr;
}

int CxLutInmapCnbl::buffersCountInMemoryPool() const
{
    return 1;
}

CxChainable* CxLutInmapCnbl::clone()
{
    auto* copy = new CxLutInmapCnbl;
    copy->m_mapToRgb = m_mapToRgb;
    copy->m_pseudoColor = m_pseudoColor;
    copy->m_autoMinMax = m_autoMinMax;
    copy->m_autoTolerance = m_autoTolerance;
    copy->m_srcMin = m_srcMin;
    copy->m_srcMax = m_srcMax;
    copy->m_gamma = m_gamma;
    return copy;
}

QWidget* CxLutInmapCnbl::configurationWidget()
{
    return new CxLutInmapCnblWidget(this);
}

bool CxLutInmapCnbl::hasConfigurationWidget() const
{
    return true;
}

bool CxLutInmapCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kMapToRgbAttribute, qlonglong(m_mapToRgb ? 1 : 0));
    element.setAttribute(kPseudoColorAttribute, m_pseudoColor);
    element.setAttribute(kAutoMinMaxAttribute, qlonglong(m_autoMinMax ? 1 : 0));
    element.setAttribute(kAutoToleranceAttribute, m_autoTolerance);
    element.setAttribute(kSrcMinAttribute, qlonglong(m_srcMin));
    element.setAttribute(kSrcMaxAttribute, qlonglong(m_srcMax));
    element.setAttribute(kGammaAttribute, m_gamma);
    return result;
}

bool CxLutInmapCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    auto text = [&element](const QString& name) { return element.attribute(name, QString()); };
    if (element.hasAttribute(kMapToRgbAttribute))
        m_mapToRgb = positiveInteger(text(kMapToRgbAttribute));
    if (element.hasAttribute(kPseudoColorAttribute))
        m_pseudoColor = text(kPseudoColorAttribute).toInt(nullptr, 10);
    if (element.hasAttribute(kAutoMinMaxAttribute))
        m_autoMinMax = positiveInteger(text(kAutoMinMaxAttribute));
    if (element.hasAttribute(kAutoToleranceAttribute))
        m_autoTolerance = truncatedInt(text(kAutoToleranceAttribute));
    if (element.hasAttribute(kSrcMinAttribute))
        m_srcMin = text(kSrcMinAttribute).toLongLong(nullptr, 10);
    if (element.hasAttribute(kSrcMaxAttribute))
        m_srcMax = text(kSrcMaxAttribute).toLongLong(nullptr, 10);
    if (element.hasAttribute(kGammaAttribute))
        m_gamma = text(kGammaAttribute).toDouble();
    invalidateLuts();
    return result;
}

bool CxLutInmapCnbl::hasHelp() const
{
    return true;
}

QString CxLutInmapCnbl::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return tr("Maximizes or changes contrast, applies LUTs.");
}

void CxLutInmapCnbl::invalidateLuts()
{
    m_lut.reset();
    m_measureTimer.restart();
}

void CxLutInmapCnbl::createLuts(unsigned int bitsPerSample, unsigned int channels, bool isColor,
                                ExImageDataType dataType)
{
    if (m_lut)
        return;
    auto lut = std::make_unique<CxLut>(bitsPerSample, channels, isColor, dataType);
    lut->setPseudoColor(m_pseudoColor);
    CxLut::CxCompContrast& record = lut->compContrast(0);
    record.srcMin = m_srcMin;
    record.srcMax = m_srcMax;
    record.gamma = m_gamma;
    bool built = false;
    if (m_mapToRgb) {
        built = lut->allocRgb(32);
    } else {
        lut->setInputBits(bitsPerSample);
        lut->setOutputBits(bitsPerSample);
        lut->setChannels(channels);
        // The table resolves "0 bits" to the whole sample type; the range
        // must follow what it resolved, or such pictures would map to black.
        // Signed samples keep their sign bit clear: a full unsigned range
        // would wrap its upper half to negative values.
        const bool isSigned = dataType == IDT_INT8 || dataType == IDT_INT16;
        const unsigned outBits = qMin(lut->outputBits(), 63u) - (isSigned ? 1 : 0);
        CxLut::CxCompContrast& r = lut->compContrast(0);
        r.dstMin = 0;
        r.dstMax = qint64((quint64(1) << outBits) - 1);
        built = lut->alloc();
    }
    if (built)
        m_lut = std::move(lut);
}

bool CxLutInmapCnbl::maximizeContrastForHisto(const CxHistoData* histo)
{
    if (!histo || histo->channels() <= 0)
        return false;
    // Channels without bins give the window [0, 0].
    const int binCount = qMax(0, histo->binCount());
    const int channels = histo->channels();

    // Every channel ignores the same share of the first channel's samples.
    quint64 threshold = 0;
    if (m_autoTolerance >= 1) {
        quint64 total = 0;
        if (const quint64* first = histo->bins(0))
            for (int b = 0; b < binCount; ++b)
                total += first[b];
        threshold = quint64(double(total) * m_autoTolerance / 1000.0);
    }

    int low = 0, high = 0;
    for (int c = 0; c < channels; ++c) {
        const quint64* bins = histo->bins(c);
        int chLow = 0, chHigh = 0;
        if (bins) {
            quint64 sum = 0;
            for (int b = 0; b < binCount; ++b) {
                sum += bins[b];
                if (sum > threshold) {
                    chLow = b;
                    break;
                }
            }
            sum = 0;
            for (int b = binCount - 1; b >= chLow; --b) {
                sum += bins[b];
                if (sum > threshold) {
                    chHigh = b;
                    break;
                }
            }
        }
        if (c == 0 || chLow < low)
            low = chLow;
        if (c == 0 || chHigh > high)
            high = chHigh;
    }
    const int shift = histo->binShift();
    m_srcMin = qint64(low) << shift;
    m_srcMax = qint64(high) << shift;
    return true;
}

bool CxLutInmapCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                          const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
try {
    out = in;
    if (outMeta)
        *outMeta = inMeta ? *inMeta : CxImageMetadata();
    if (m_mapToRgb) {
        out.channels = 4;
        out.bitsPerSample = 8;
        out.dataType = IDT_UINT8;
        out.storageFormat = DSF_PACKED;
        out.colorFilterArray = CFA_NONE;
        out.isColor = true;
        const quint64 pitch = quint64(in.width) * 4;
        // A row too long for the field is left to the allocator, which refuses it.
        out.linePitch = pitch <= std::numeric_limits<quint32>::max() ? quint32(pitch) : 0;
        if (outMeta) {
            outMeta->setColorFilterArray(CFA_NONE);
            outMeta->setChannelNames(QStringList());
        }
    }
    return true;
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "queryOutputImageInfo", e);
    return false;
}

IxChainData* CxLutInmapCnbl::processData(IxChainData* data)
try {
    if (!data)
        return nullptr;
    if (state() == StateStopping)
        return nullptr;
    auto* input = qobject_cast<CxImageData*>(data);
    if (!input)
        return data;

    const SxPicBuf* inPic = input->picBuf();
    SxPicBufInfo outInfo;
    CxImageMetadata outMeta;
    if (!queryOutputImageInfo(*inPic, outInfo, input->metadata(), &outMeta) || !inPic->data)
        return nullptr;

    SxPicBuf outPic;
    if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, outPic, outInfo, false))
        return nullptr;

    if (m_lut && !m_lut->isCompatibleWith(&outPic, inPic))
        invalidateLuts();

    if (m_autoMinMax && m_measureTimer.elapsed() > MeasureIntervalMs) {
        m_measureTimer.restart();
        CxHistoData histo;
        const qint64 oldMin = m_srcMin, oldMax = m_srcMax;
        if (CxPicBufMeas::measureHistogram(histo, input, QRect(),
                                           QFlags<CxHistoData::ExHistoDataFlag>(kHistogramFlags))
            && maximizeContrastForHisto(&histo) && (m_srcMin != oldMin || m_srcMax != oldMax))
            invalidateLuts();
    }

    if (!m_lut)
        createLuts(inPic->bitsPerSample, inPic->channels, inPic->isColor, inPic->dataType);

    // A table that refuses this picture (rows not aligned to the sample size)
    // leaves it unmapped rather than unwritten.
    bool done = m_lut && m_lut->apply(&outPic, inPic, input->metadata());
    if (!done) {
        done = m_mapToRgb ? CxPicBufAPI::ConvertPicToRGB(*inPic, outPic)
                          : CxPicBufAPI::CopyPicBuf(outPic, *inPic, false);
    }
    if (!done) {
        CxPicBufAPI::FreePicBuf(outPic, false);
        if (errorMessage().isEmpty())
            setErrorMessage(tr("LUT Mapping cannot convert images of this format (%1).")
                                .arg(nodekit::describe(*inPic)));
        return data;
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
