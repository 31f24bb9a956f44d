#include "MosaicStatFilterChnbl.h"
#include "MosaicStatFilterWidget.h"
#include "NodeKit.h"

#include <CxHsiCameraParams.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>
#include <SxPicBuf.h>

#include <QtCore/QMutexLocker>
#include <QtXml/QDomDocument>
#include <QtXml/QDomElement>

#include <limits>

namespace {

// Chain document attributes; the names are part of the saved-file format.
const QString kStatFilterAttribute = QStringLiteral("statFilter");
const QString kInterpolationAttribute = QStringLiteral("interpolation");

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
    QMutexLocker locker(nodeMutex());
    return m_statFilter;
}

void CxMosaicStatFilterChnbl::setStatFilter(ExMosaicFilter filter)
{
    {
        QMutexLocker locker(nodeMutex());
        if (m_statFilter == filter)
            return;
        m_statFilter = filter;
    }
    emit titleChanged(this);
}

bool CxMosaicStatFilterChnbl::interpolation() const
{
    QMutexLocker locker(nodeMutex());
    return m_interpolation;
}

void CxMosaicStatFilterChnbl::setInterpolation(bool on)
{
    {
        QMutexLocker locker(nodeMutex());
        if (m_interpolation == on)
            return;
        m_interpolation = on;
    }
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

bool CxMosaicStatFilterChnbl::acceptsDataFrom(CxChainable* predecessor)
{
    return qobject_cast<CxImageProvider*>(predecessor) != nullptr;
}

int CxMosaicStatFilterChnbl::buffersCountInMemoryPool() const
{
    return 1;
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

bool CxMosaicStatFilterChnbl::hasConfigurationWidget() const
{
    return true;
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
    bool failed = false;
    bool ok = false;
    if (element.hasAttribute(kStatFilterAttribute)) {
        const int value = element.attribute(kStatFilterAttribute, QStringLiteral("0")).toInt(&ok, 10);
        failed |= !ok;
        setStatFilter(ExMosaicFilter(ok ? value : 0));
    }
    if (element.hasAttribute(kInterpolationAttribute)) {
        const int value = element.attribute(kInterpolationAttribute, QStringLiteral("1")).toInt(&ok, 10);
        failed |= !ok;
        setInterpolation(ok && value != 0);
    }
    return result && !failed;
}

bool CxMosaicStatFilterChnbl::hasHelp() const
{
    return true;
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
try {
    return outputFormat(statFilter(), interpolation(), in, out, inMeta, outMeta);
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "queryOutputImageInfo", e);
    return false;
}

IxChainData* CxMosaicStatFilterChnbl::processData(IxChainData* data)
try {
    if (!data)
        return nullptr;
    if (state() == StateStopping)
        return nullptr;
    auto* input = qobject_cast<CxImageData*>(data);
    if (!input)
        return nullptr;

    const SxPicBuf* inPic = input->picBuf();
    const CxImageMetadata* inMeta = input->metadata();
    auto tell = [this](const QString& message) {
        if (errorMessage().isEmpty())
            setErrorMessage(message);
    };
    if (!isRawMosaic(*inPic)) {
        tell(tr("The input image is not in RAW format."));
        return data;
    }
    if (isHyperspectral(*inPic, inMeta) && !(inMeta && inMeta->hsiCameraParams().isSimpleMosaicFilter())) {
        tell(tr("Only the simple mosaic HSI images are supported."));
        return data;
    }

    // One reading of the settings for the whole frame: the widget may change
    // them meanwhile.
    const ExMosaicFilter filter = statFilter();
    SxPicBufInfo outInfo;
    CxImageMetadata outMeta;
    if (!outputFormat(filter, interpolation(), *inPic, outInfo, inMeta, &outMeta) || !inPic->data)
        return nullptr;

    SxPicBuf outPic;
    if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, outPic, outInfo, false))
        return nullptr;

    const SxCells cells = cellsOf(*inPic, inMeta);
    bool done = false;
    switch (filter) {
    case Minimum:
        done = CxPicBufAPI::FilterMinOnMosaicPicBuf(*inPic, cells.rect, cells.periodX, cells.periodY, outPic);
        break;
    case Maximum:
        done = CxPicBufAPI::FilterMaxOnMosaicPicBuf(*inPic, cells.rect, cells.periodX, cells.periodY, outPic);
        break;
    case Average:
        done = CxPicBufAPI::FilterAvgOnMosaicPicBuf(*inPic, cells.rect, cells.periodX, cells.periodY, outPic);
        break;
    case Normalize:
        done = CxPicBufAPI::FilterNormalizeOnMosaicPicBuf(*inPic, cells.rect, cells.periodX, cells.periodY, outPic);
        break;
    }
    if (!done) {
        tell(tr("The processing failed."));
        CxPicBufAPI::FreePicBuf(outPic, true);
        return data;
    }

    outPic.exposureTimeUs = inPic->exposureTimeUs;
    outPic.timestampMs = inPic->timestampMs;
    outPic.copyPicAdditionalData(*inPic);

    auto* output = new CxImageData;
    output->setPicBuf(outPic);
    output->setMetadata(&outMeta);
    if (!errorMessage().isEmpty())
        clearErrorMessage();
    delete data;
    return output;
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "processData", e);
    return nullptr;
}
