#include "MosaicStatFilterChnbl.h"
#include "MosaicStatFilterWidget.h"

#include <QtXml/QDomDocument>

#include <limits>

namespace {

const QString kStatFilterAttribute = QStringLiteral("statFilter");
const QString kInterpolationAttribute = QStringLiteral("interpolation");

constexpr nodekit::FrameRules kFrame{nodekit::ForeignDropped, nodekit::StoppingDropped, nodekit::PoolFixed};

constexpr quint64 kRowAlignment = 256;

struct SxCells
{
    QRect rect;       // inclusive corners; a sensor zone may reach past the picture
    int periodX = 2;  // samples per hyperpixel across and down
    int periodY = 2;
};

bool isRawMosaic(const SxPicBufInfo& in)
{
    return in.channels == 1 && in.colorFilterArray != CFA_NONE && in.storageFormat != DSF_NOT_RAW;
}

bool isHyperspectral(const SxPicBufInfo& in, const CxImageMetadata* meta)
{
    return in.colorFilterArray == CFA_HSI_MOSAIC || (meta && meta->colorFilterArray() == CFA_HSI_MOSAIC);
}

SxCells cellsOf(const SxPicBufInfo& in, const CxImageMetadata* meta)
{
    constexpr quint32 maxSide = quint32(std::numeric_limits<int>::max());
    const QRect whole(0, 0, int(qMin(in.width, maxSide)), int(qMin(in.height, maxSide)));
    SxCells cells;
    cells.rect = whole;
    if (!isHyperspectral(in, meta))
        return cells;
    if (!meta || !meta->hsiCameraParams().isValid()) {
        cells.periodX = cells.periodY = 1;
        return cells;
    }
    CxHsiCameraParams::CxFilterZone zone;
    nodekit::firstFilterZone(meta->hsiCameraParams(), zone);  // a valid camera has one
    cells.periodX = zone.patternWidth;
    cells.periodY = zone.patternHeight;
    // The zone as described, not clipped: the output has one sample per
    // hyperpixel of the zone, and the host gives 0 where the picture does
    // not hold a hyperpixel whole.
    if (!zone.coversWholeSensor())
        cells.rect = zone.rect;
    return cells;
}

// The snapshot of the settings one frame is processed with.
bool outputFormat(CxMosaicStatFilterChnbl::ExMosaicFilter filter, bool interpolation,
                  const SxPicBufInfo& in, SxPicBufInfo& out, const CxImageMetadata* inMeta,
                  CxImageMetadata* outMeta)
{
    if (!isRawMosaic(in)) {
        out = in;
        if (inMeta && outMeta)
            *outMeta = *inMeta;
        return true;
    }
    const bool normalize = filter == CxMosaicStatFilterChnbl::Normalize;
    out.channels = 1;
    out.bitsPerSample = in.bitsPerSample;
    out.dataType = in.dataType;
    out.storageFormat = DSF_PACKED;
    out.colorFilterArray = normalize ? in.colorFilterArray : CFA_NONE;
    if (normalize || interpolation) {
        out.width = in.width;
        out.height = in.height;
    } else {
        const SxCells cells = cellsOf(in, inMeta);
        const qint64 width = qint64(cells.rect.right()) - cells.rect.left() + 1;
        const qint64 height = qint64(cells.rect.bottom()) - cells.rect.top() + 1;
        out.width = quint32(qMax<qint64>(0, width) / cells.periodX);
        out.height = quint32(qMax<qint64>(0, height) / cells.periodY);
    }
    const quint64 row = quint64(out.bytesPerSample()) * out.width;
    const quint64 pitch = (row + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
    // A row too long for the field is left to the allocator, which refuses it.
    out.linePitch = pitch <= std::numeric_limits<quint32>::max() ? quint32(pitch) : 0;
    if (inMeta && outMeta) {
        *outMeta = *inMeta;
        if (!normalize) {
            outMeta->setColorFilterArray(CFA_NONE);
            outMeta->setHsiCameraParams(CxHsiCameraParams());
        }
    }
    return true;
}

} // namespace

CxMosaicStatFilterChnbl::CxMosaicStatFilterChnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagMosaicAware | FlagProcessor))
{
}

CxMosaicStatFilterChnbl::~CxMosaicStatFilterChnbl() = default;

QString CxMosaicStatFilterChnbl::statString(ExMosaicFilter filter)
{
    switch (filter) {
    case Minimum: return tr("Minimum");
    case Maximum: return tr("Maximum");
    case Average: return tr("Average");
    case Normalize: return tr("Normalize");
    }
    return QString();
}

CxMosaicStatFilterChnbl::ExMosaicFilter CxMosaicStatFilterChnbl::statFilter() const
{
    return nodekit::lockedGet(this, m_statFilter);
}

void CxMosaicStatFilterChnbl::setStatFilter(ExMosaicFilter filter)
{
    if (nodekit::lockedSet(this, m_statFilter, filter))
        emit titleChanged(this);
}

bool CxMosaicStatFilterChnbl::interpolation() const
{
    return nodekit::lockedGet(this, m_interpolation);
}

void CxMosaicStatFilterChnbl::setInterpolation(bool on)
{
    if (nodekit::lockedSet(this, m_interpolation, on))
        emit titleChanged(this);
}

QString CxMosaicStatFilterChnbl::title() const
{
    const ExMosaicFilter filter = statFilter();
    QString text = tr("Mosaic") + QStringLiteral(" %1").arg(statString(filter));
    if (interpolation() && filter != Normalize)
        text += QStringLiteral(" (") + tr("interpolation") + QStringLiteral(")");
    return text;
}

CxChainable* CxMosaicStatFilterChnbl::clone()
{
    auto* copy = new CxMosaicStatFilterChnbl;
    copy->setStatFilter(statFilter());
    copy->setInterpolation(interpolation());
    return copy;
}

QWidget* CxMosaicStatFilterChnbl::configurationWidget()
{
    return new CxMosaicStatFilterWidget(this);
}

bool CxMosaicStatFilterChnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kStatFilterAttribute, int(statFilter()));
    element.setAttribute(kInterpolationAttribute, qlonglong(interpolation() ? 1 : 0));
    return result;
}

bool CxMosaicStatFilterChnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    // Text that is not a number makes the load answer false.
    bool filterOk = false, interpolationOk = false;
    setStatFilter(nodekit::attribute(element, kStatFilterAttribute, statFilter(), &filterOk));
    setInterpolation(nodekit::attribute(element, kInterpolationAttribute, interpolation(), nodekit::On::NonZero,
                                        &interpolationOk));
    return result && filterOk && interpolationOk;
}

QString CxMosaicStatFilterChnbl::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return tr("Applies a statistic filter on the input image.<ul>"
              "<li><b>Minimum</b>: the output image contains the minimum from each hyperpixel.</li>"
              "<li><b>Maximum</b>: the output image contains the maximum from each hyperpixel.</li>"
              "<li><b>Averaging</b>: the output image contains the average from each hyperpixel.</li>"
              "<li><b>Normalize</b>: each hyperpixel is normalized to [0; maxIntensityValue].</li></ul>"
              "If the <b>Interpolation</b> option is checked then the output image will have size of the "
              "input image decreased by one hyperpixel in width and height. The <b>mormalized</b> image "
              "has always the same size as the input image.");
}

bool CxMosaicStatFilterChnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                                   const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        return nodekit::locked(this,
                               [&] { return outputFormat(m_statFilter, m_interpolation, in, out, inMeta, outMeta); });
    });
}

IxChainData* CxMosaicStatFilterChnbl::processData(IxChainData* data)
{
    // Held over the frame: the format negotiated and the statistic computed
    // come from one reading of the settings, which the panel may change.
    QMutexLocker lock(nodeMutex());
    const auto admit = [this](const nodekit::Frame& f) {
        if (!isRawMosaic(f.in)) {
            nodekit::tell(this, tr("The input image is not in RAW format."));
            return nodekit::PassOn;
        }
        if (isHyperspectral(f.in, f.meta) && !(f.meta && f.meta->hsiCameraParams().isSimpleMosaicFilter())) {
            nodekit::tell(this, tr("Only the simple mosaic HSI images are supported."));
            return nodekit::PassOn;
        }
        return nodekit::Go;
    };
    return nodekit::processFrame(this, data, kFrame, admit, [this](nodekit::Frame& f) {
        const SxCells cells = cellsOf(f.in, f.meta);
        bool done = false;
        switch (m_statFilter) {
        case Minimum:
            done = CxPicBufAPI::FilterMinOnMosaicPicBuf(f.in, cells.rect, cells.periodX, cells.periodY, f.out);
            break;
        case Maximum:
            done = CxPicBufAPI::FilterMaxOnMosaicPicBuf(f.in, cells.rect, cells.periodX, cells.periodY, f.out);
            break;
        case Average:
            done = CxPicBufAPI::FilterAvgOnMosaicPicBuf(f.in, cells.rect, cells.periodX, cells.periodY, f.out);
            break;
        case Normalize:
            done = CxPicBufAPI::FilterNormalizeOnMosaicPicBuf(f.in, cells.rect, cells.periodX, cells.periodY, f.out);
            break;
        }
        if (!done) {
            nodekit::tell(this, tr("The processing failed."));
            return nodekit::PassOn;
        }
        if (!errorMessage().isEmpty())
            clearErrorMessage();
        return nodekit::Go;
    });
}
