#include "MedianCnbl.h"
#include "MedianWidget.h"

#include <QtCore/QDebug>
#include <QtXml/QDomDocument>

#include <algorithm>
#include <cstring>

#include <KitMosaic.h>

namespace {

const QString kKernelSizeAttribute = QStringLiteral("kernelSize");

constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingPassed, nodekit::PoolFixed};

bool isSupportedType(ExImageDataType t)
{
    return t == IDT_UINT8 || t == IDT_UINT16;
}

bool isRaw(const SxPicBufInfo& info)
{
    return info.storageFormat != DSF_NOT_RAW && info.channels == 1;
}

// Samples of a picture extent that fall on pattern offset o with period p.
quint32 planeExtent(quint32 extent, int period, int offset)
{
    return extent > quint32(offset) ? quint32((quint64(extent) - offset + period - 1) / period) : 0;
}

struct SxPlacement
{
    int ox, oy, c;
};

SxPlacement placementOf(const CxMedianCnbl::SxPlaneLayout& l, int i)
{
    const int cell = i / l.channels;
    return {cell % l.periodX, cell / l.periodX, i % l.channels};
}

} // namespace

// Planes are filtered in bands, so they hold a band's rows only.
SxPicBufInfo med_planeFormat(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int i, int radius)
{
    const SxPlacement p = placementOf(l, i);
    SxPicBufInfo f = in;
    f.width = planeExtent(in.width, l.periodX, p.ox);
    f.height = planeExtent(in.height, l.periodY, p.oy);
    f.height = quint32(qMin<quint64>(f.height, med_bandRows(in, l, radius) + 2 * quint64(radius)));
    f.linePitch = 0;
    f.channels = 1;
    f.storageFormat = DSF_PACKED;
    f.colorFilterArray = CFA_NONE;
    f.isColor = false;
    return f;
}

// Plane rows a band filters at once, and the rows its plane buffers hold:
// the band with radius rows of context above and below.
quint64 med_bandRows(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int radius)
{
    // Every plane's rows of one band, split and filtered, stay within the
    // last-level cache. Bands are evened out rather than leaving a thin last
    // one, whose medians would pay their edges for few rows.
    constexpr quint64 kBandBytes = 4 << 20;
    const quint64 rowBytes = qMax<quint64>(1, 2 * quint64(l.periodY) * in.width * in.channels * in.bytesPerSample());
    const quint64 band = std::max<quint64>({kBandBytes / rowBytes, 8 * quint64(radius), 16});
    const quint64 planeHeight = (quint64(in.height) + l.periodY - 1) / quint64(l.periodY);
    const quint64 bands = qMax<quint64>(1, planeHeight / band);
    return qMax<quint64>(band, (planeHeight + bands - 1) / bands);
}

namespace {

// Rows lo..hi - 1 of a plane as a picture of their own.
SxPicBuf planeRows(const SxPicBuf& plane, quint64 lo, quint64 hi)
{
    SxPicBuf rows = plane;
    const quint64 offset = lo * plane.effectiveLinePitch();
    rows.data = plane.data + offset;
    rows.height = quint32(hi - lo);
    rows.memCapacity = plane.memCapacity - offset;
    return rows;
}

} // namespace

// Row y of a picture holds, in its streams, row y / ph - base of the planes
// of pattern row y % ph: plane oy x streams + s for stream s = ox x channels + c.
template <class Pic>
uchar* const* planeRowsOf(Pic* planes, const CxMedianCnbl::SxPlaneLayout& l, quint32 y, quint32 base, uchar** rows)
{
    const int streams = l.periodX * l.channels;
    Pic* first = planes + qint64(y % quint32(l.periodY)) * streams;
    const quint64 r = y / quint32(l.periodY) - base;
    for (int s = 0; s < streams; ++s)
        rows[s] = first[s].width ? const_cast<uchar*>(first[s].data) + r * first[s].effectiveLinePitch() : nullptr;
    return rows;
}

template <class T>
void med_splitPlanes_T(const SxPicBuf& in, const CxMedianCnbl::SxPlaneLayout& l, SxPicBuf* planes, uchar** rows,
                       quint32 y0, quint32 y1, quint32 base)
{
    const pixelkit::RowStreams<sizeof(T)> streams(l.periodX * l.channels);
    const qint64 n = qint64(in.width) * in.channels;
    for (quint32 y = y0; y < y1; ++y)
        streams.split(in.data + y * in.effectiveLinePitch(), n, planeRowsOf(planes, l, y, base, rows));
}

template <class T>
void med_weavePlanes_T(const SxPicBuf* planes, const CxMedianCnbl::SxPlaneLayout& l, SxPicBuf& out, uchar** rows,
                       quint32 y0, quint32 y1, quint32 base)
{
    const pixelkit::RowStreams<sizeof(T)> streams(l.periodX * l.channels);
    const qint64 n = qint64(out.width) * out.channels;
    for (quint32 y = y0; y < y1; ++y)
        streams.weave(planeRowsOf(planes, l, y, base, rows), n, out.data + y * out.effectiveLinePitch());
}

template void med_splitPlanes_T<quint8>(const SxPicBuf&, const CxMedianCnbl::SxPlaneLayout&, SxPicBuf*, uchar**,
                                        quint32, quint32, quint32);
template void med_splitPlanes_T<quint16>(const SxPicBuf&, const CxMedianCnbl::SxPlaneLayout&, SxPicBuf*, uchar**,
                                         quint32, quint32, quint32);
template void med_weavePlanes_T<quint8>(const SxPicBuf*, const CxMedianCnbl::SxPlaneLayout&, SxPicBuf&, uchar**,
                                        quint32, quint32, quint32);
template void med_weavePlanes_T<quint16>(const SxPicBuf*, const CxMedianCnbl::SxPlaneLayout&, SxPicBuf&, uchar**,
                                         quint32, quint32, quint32);

// Splitting and weaving a whole frame would each stream it through memory
// once more than the medians do. In bands of plane rows small enough to stay
// in the cache, the medians read what the split has just written and the
// weave what they have just written. Each band is split with radius rows of
// context above and below it, so that its own rows see their whole window.
template <class T>
bool med_filterInBands_T(const SxPicBuf& in, SxPicBuf& out, const CxMedianCnbl::SxPlaneLayout& l, SxPicBuf* inPlanes,
                         SxPicBuf* outPlanes, uchar** rowPtrs, int radius, void* work, quint64 band,
                         MedPlaneFilter filter)
{
    const quint64 height = in.height, ph = quint64(l.periodY), r = quint64(radius);
    const quint64 planeHeight = (height + ph - 1) / ph;  // of the first pattern row, the tallest
    const int streams = l.periodX * l.channels;
    band = qMax<quint64>(band, 1);
    for (quint64 b0 = 0; b0 < planeHeight; b0 += band) {
        const quint64 b1 = qMin(planeHeight, b0 + band);
        const quint64 lo = b0 > r ? b0 - r : 0, hi = qMin(planeHeight, b1 + r);
        med_splitPlanes_T<T>(in, l, inPlanes, rowPtrs, quint32(ph * lo), quint32(qMin(height, ph * hi)),
                             quint32(lo));
        for (int i = 0, n = l.count(); i < n; ++i) {
            // Later pattern rows of a picture cut mid-pattern are a row shorter.
            const quint64 oy = quint64(i / streams);
            const quint64 cellRows = height > oy ? (height - oy + ph - 1) / ph : 0;
            const quint64 rows = qMin(cellRows, hi) > lo ? qMin(cellRows, hi) - lo : 0;
            if (rows == 0 || inPlanes[i].width == 0)
                continue;
            SxPicBuf bandOut = planeRows(outPlanes[i], 0, rows);
            if (!filter(planeRows(inPlanes[i], 0, rows), bandOut, radius, work))
                return false;
        }
        med_weavePlanes_T<T>(outPlanes, l, out, rowPtrs, quint32(ph * b0), quint32(qMin(height, ph * b1)),
                             quint32(lo));
    }
    return true;
}

template bool med_filterInBands_T<quint8>(const SxPicBuf&, SxPicBuf&, const CxMedianCnbl::SxPlaneLayout&, SxPicBuf*,
                                          SxPicBuf*, uchar**, int, void*, quint64, MedPlaneFilter);
template bool med_filterInBands_T<quint16>(const SxPicBuf&, SxPicBuf&, const CxMedianCnbl::SxPlaneLayout&,
                                           SxPicBuf*, SxPicBuf*, uchar**, int, void*, quint64, MedPlaneFilter);

namespace {

template <class T>
bool filterPlanes_T(const SxPicBuf& in, SxPicBuf& out, const CxMedianCnbl::SxPlaneLayout& l, SxPicBuf* inPlanes,
                    SxPicBuf* outPlanes, uchar** rows, int radius, void* work)
{
    if (!pixelkit::rowsFit(in) || !pixelkit::rowsFit(out))
        return false;
    return med_filterInBands_T<T>(in, out, l, inPlanes, outPlanes, rows, radius, work,
                                  med_bandRows(in, l, radius));
}

} // namespace

CxMedianCnbl::CxMedianCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor))
{
}

CxMedianCnbl::~CxMedianCnbl()
{
    freePlanes();
}

QString CxMedianCnbl::title() const
{
    const qint64 size = 2 * qint64(kernelRadius()) + 1;
    return tr("Median") + QStringLiteral(" (%1x%1)").arg(size);
}

CxChainable* CxMedianCnbl::clone()
{
    auto* copy = new CxMedianCnbl;
    copy->m_radius = kernelRadius();
    return copy;
}

QWidget* CxMedianCnbl::configurationWidget()
{
    return new CxMedianWidget(this);
}

bool CxMedianCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kKernelSizeAttribute, 2 * qint64(kernelRadius()) + 1);
    return result;
}

bool CxMedianCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    // Unlike most nodes, a missing size fails the load.
    if (!element.hasAttribute(kKernelSizeAttribute))
        return false;
    const int size = nodekit::attribute(element, kKernelSizeAttribute, 0);
    setKernelRadius(size < 3 ? 1 : (size - 1) / 2);
    return result;
}

QString CxMedianCnbl::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return tr("Performs the median filtering with given kernel size.");
}

int CxMedianCnbl::kernelRadius() const
{
    return nodekit::lockedGet(this, m_radius);
}

void CxMedianCnbl::setKernelRadius(int radius)
{
    if (nodekit::lockedSet(this, m_radius, radius))
        emit titleChanged(this);
}

CxMedianCnbl::SxPlaneLayout CxMedianCnbl::planeLayout(const SxPicBufInfo& info, const CxImageMetadata* meta)
{
    SxPlaneLayout l;
    if (info.channels > 1) {
        l.channels = int(qMin<quint32>(info.channels, 1u << 16));  // no picture has more
    } else if (isRaw(info) && isTwoByTwoMosaic(info.colorFilterArray)) {
        l.periodX = l.periodY = 2;
    } else if (isRaw(info) && info.colorFilterArray == CFA_HSI_MOSAIC && meta
               && meta->hsiCameraParams().isSimpleMosaicFilter()) {
        CxHsiCameraParams::CxFilterZone zone;
        nodekit::firstFilterZone(meta->hsiCameraParams(), zone);  // a simple mosaic has one
        l.periodX = zone.patternWidth;
        l.periodY = zone.patternHeight;
        l.hsi = true;
    }
    return l;
}

void CxMedianCnbl::setupStart()
{
    nodekit::guarded(this, "setupStart", [&] {
        CxImageProvider::setupStart();
        freePlanes();

        SxPicBufInfo in;
        CxImageMetadata meta;
        if (!currentInputImageInfo(in, &meta) || !isSupportedType(in.dataType))
            return;
        const SxPlaneLayout layout = planeLayout(in, &meta);
        const int radius = kernelRadius();
        // The work buffer depends on the sample type and radius only.
        if (!CxPicBufAPI::MedianAllocBuffer(med_planeFormat(in, layout, 0, radius), radius, &m_work))
            m_work = nullptr;
        m_setupFormat = in;
        m_setupRadius = radius;
        m_layout = layout;
        if (layout.count() == 1)
            return;

        const int n = layout.count();
        m_inPlanes.assign(size_t(n), SxPicBuf());
        m_outPlanes.assign(size_t(n), SxPicBuf());
        m_rows.assign(size_t(layout.periodX) * size_t(layout.channels), nullptr);
        m_planeCount = n;
        for (int i = 0; i < n; ++i) {
            const SxPicBufInfo f = med_planeFormat(in, layout, i, radius);
            m_inPlanes[size_t(i)].setPicFormat(f);
            m_outPlanes[size_t(i)].setPicFormat(f);
            if (!CxPicBufAPI::AllocPicBufFromHeap(m_inPlanes[size_t(i)], f, false, 0)
                || !CxPicBufAPI::AllocPicBufFromHeap(m_outPlanes[size_t(i)], f, false, 0)) {
                qCritical() << title() << "could not allocate its working planes for" << nodekit::describe(in);
                freePlanes();
                return;
            }
        }
    });
}

void CxMedianCnbl::setupStop()
{
    CxImageProvider::setupStop();
    freePlanes();
}

void CxMedianCnbl::freePlanes()
{
    CxPicBufAPI::MedianFreeBuffer(m_work);
    m_work = nullptr;
    for (SxPicBuf& p : m_inPlanes)
        CxPicBufAPI::FreePicBuf(p, true);
    for (SxPicBuf& p : m_outPlanes)
        CxPicBufAPI::FreePicBuf(p, true);
    m_inPlanes.clear();
    m_outPlanes.clear();
    m_rows.clear();
    m_planeCount = 0;
    m_layout = SxPlaneLayout();
}

bool CxMedianCnbl::planesFit(const SxPicBuf& in, const SxPlaneLayout& layout) const
{
    return layout == m_layout && m_planeCount == layout.count() && in.width == m_setupFormat.width
        && in.height == m_setupFormat.height && in.dataType == m_setupFormat.dataType;
}

bool CxMedianCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                        const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        return true;
    });
}

bool CxMedianCnbl::filterPlanes(const SxPicBuf& in, SxPicBuf& out, int radius)
{
    if (in.dataType == IDT_UINT8)
        return filterPlanes_T<quint8>(in, out, m_layout, m_inPlanes.data(), m_outPlanes.data(), m_rows.data(), radius,
                                      m_work);
    return filterPlanes_T<quint16>(in, out, m_layout, m_inPlanes.data(), m_outPlanes.data(), m_rows.data(), radius,
                                   m_work);
}

IxChainData* CxMedianCnbl::processData(IxChainData* data)
{
    SxPlaneLayout layout;
    const int radius = m_radius;
    const auto admit = [&](const nodekit::Frame& f) {
        if (!isSupportedType(f.in.dataType)) {
            nodekit::tell(this, tr("The input image data type is not supported."));
            return nodekit::PassOn;
        }
        if (isRaw(f.in) && f.in.colorFilterArray == CFA_HSI_MOSAIC
            && !(f.meta && f.meta->hsiCameraParams().isSimpleMosaicFilter())) {
            nodekit::tell(this, tr("Only the simple mosaic HSI images are supported."));
            return nodekit::PassOn;
        }
        if (!f.in.data)
            return nodekit::Drop;
        // Set up for another format, or for a kernel the host cannot filter with.
        layout = planeLayout(f.in, f.meta);
        if (!m_work || (layout.count() > 1 && (!planesFit(f.in, layout) || radius != m_setupRadius)))
            return nodekit::PassOn;
        return nodekit::Go;
    };
    return nodekit::processFrame(this, data, kFrame, admit, [&](nodekit::Frame& f) {
        const bool done = layout.count() > 1 ? filterPlanes(f.in, f.out, radius)
                                             : CxPicBufAPI::Median(f.in, f.out, radius, m_work);
        return done ? nodekit::Go : nodekit::PassOn;
    });
}
