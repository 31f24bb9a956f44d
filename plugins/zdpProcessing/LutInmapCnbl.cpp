#include "LutInmapCnbl.h"
#include "LutInmapWidget.h"

#include <CxHistoData.h>
#include <CxLut.h>
#include <CxPicBufMeas.h>

#include <QtCore/QRect>
#include <QtXml/QDomDocument>

#include <cmath>
#include <limits>

namespace {

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

constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingDropped, nodekit::PoolFixed};

// Truncated towards zero; NaN gives 0 and values beyond the 32-bit range
// stop at its ends.
int truncatedInt(double v)
{
    if (std::isnan(v))
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
    using nodekit::attribute;
    m_mapToRgb = attribute(element, kMapToRgbAttribute, m_mapToRgb, nodekit::On::AboveZero);
    m_pseudoColor = attribute(element, kPseudoColorAttribute, m_pseudoColor);
    m_autoMinMax = attribute(element, kAutoMinMaxAttribute, m_autoMinMax, nodekit::On::AboveZero);
    // A tolerance may be written with decimals; it is cut to an integer.
    m_autoTolerance = truncatedInt(attribute(element, kAutoToleranceAttribute, double(m_autoTolerance)));
    m_srcMin = attribute(element, kSrcMinAttribute, m_srcMin);
    m_srcMax = attribute(element, kSrcMaxAttribute, m_srcMax);
    m_gamma = attribute(element, kGammaAttribute, m_gamma);
    invalidateLuts();
    return result;
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
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        if (m_mapToRgb) {
            nodekit::makeColour8(out);
            const quint64 pitch = quint64(in.width) * 4;
            // A row too long for the field is left to the allocator, which refuses it.
            out.linePitch = pitch <= std::numeric_limits<quint32>::max() ? quint32(pitch) : 0;
            if (outMeta) {
                outMeta->setColorFilterArray(CFA_NONE);
                outMeta->setChannelNames(QStringList());
            }
        }
        return true;
    });
}

IxChainData* CxLutInmapCnbl::processData(IxChainData* data)
{
    return nodekit::processFrame(this, data, kFrame, [this](nodekit::Frame& f) {
        if (m_lut && !m_lut->isCompatibleWith(&f.out, &f.in))
            invalidateLuts();

        if (m_autoMinMax && m_measureTimer.elapsed() > MeasureIntervalMs) {
            m_measureTimer.restart();
            CxHistoData histo;
            const qint64 oldMin = m_srcMin, oldMax = m_srcMax;
            if (CxPicBufMeas::measureHistogram(histo, &f.packet, QRect(),
                                               QFlags<CxHistoData::ExHistoDataFlag>(kHistogramFlags))
                && maximizeContrastForHisto(&histo) && (m_srcMin != oldMin || m_srcMax != oldMax))
                invalidateLuts();
        }

        if (!m_lut)
            createLuts(f.in.bitsPerSample, f.in.channels, f.in.isColor, f.in.dataType);

        // A table that refuses this picture (rows not aligned to the sample
        // size) leaves it unmapped rather than unwritten.
        if (m_lut && m_lut->apply(&f.out, &f.in, f.meta))
            return nodekit::Go;
        if (m_mapToRgb ? CxPicBufAPI::ConvertPicToRGB(f.in, f.out) : CxPicBufAPI::CopyPicBuf(f.out, f.in, false))
            return nodekit::Go;
        nodekit::tell(this, tr("LUT Mapping cannot convert images of this format (%1).").arg(nodekit::describe(f.in)));
        return nodekit::PassOn;
    });
}
