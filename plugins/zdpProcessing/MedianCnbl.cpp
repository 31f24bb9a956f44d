#include "MedianCnbl.h"
#include "MedianWidget.h"

#include <QtCore/QDebug>
#include <QtXml/QDomDocument>

#include <algorithm>
#include <climits>
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

// The planes of a band side by side, each with radius samples more on either
// side than the widest plane and radius rows more above and below the band.
SxPicBufInfo med_stackFormat(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int radius)
{
    SxPicBufInfo f = med_planeFormat(in, l, 0, radius);
    const quint64 planeHeight = planeExtent(in.height, l.periodY, 0);
    const quint64 rows = qMin<quint64>(med_bandRows(in, l, radius), planeHeight) + 2 * quint64(radius);
    const quint64 width = quint64(l.count()) * (f.width + 2 * quint64(radius));
    const bool fits = rows <= quint64(INT_MAX) && width * f.bytesPerSample() <= quint64(INT_MAX);
    f.width = fits ? quint32(width) : 0;
    f.height = fits ? quint32(rows) : 0;
    return f;
}

// Plane rows a band filters at once, and the rows its plane buffers hold:
// the band with radius rows of context above and below.
quint64 med_bandRows(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int radius)
{
    // A band's planes, split and filtered, stay within the second-level
    // caches of the cores the median runs on, but the band holds enough rows
    // of each plane to pay for handing them to the host's threads. Bands are
    // evened out rather than leaving a thin last one, whose medians would pay
    // their edges for few rows.
    constexpr quint64 kBandBytes = 2 << 20, kPlaneSamples = 32 << 10;
    const quint64 rowBytes = qMax<quint64>(1, 2 * quint64(l.periodY) * in.width * in.channels * in.bytesPerSample());
    const quint64 planeWidth = qMax<quint64>(1, quint64(in.width) * in.channels / quint64(l.periodX * l.channels));
    const quint64 band = std::max<quint64>({kBandBytes / rowBytes, kPlaneSamples / planeWidth, 8 * quint64(radius), 16});
    const quint64 planeHeight = (quint64(in.height) + l.periodY - 1) / quint64(l.periodY);
    const quint64 bands = qMax<quint64>(1, planeHeight / band);
    return qMax<quint64>(band, (planeHeight + bands - 1) / bands);
}

namespace {

// Output frames from this size on are written past the cache.
constexpr quint64 kBypassBytes = 1 << 20;

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

template void med_splitPlanes_T<quint8>(const SxPicBuf&, const CxMedianCnbl::SxPlaneLayout&, SxPicBuf*, uchar**,
                                        quint32, quint32, quint32);
template void med_splitPlanes_T<quint16>(const SxPicBuf&, const CxMedianCnbl::SxPlaneLayout&, SxPicBuf*, uchar**,
                                         quint32, quint32, quint32);
// Splitting and weaving a whole frame would each stream it through memory
// once more than the medians do. In bands of plane rows small enough to stay
// in the cache, the medians read what the split has just written and the
// weave what they have just written. The planes of a band lie side by side
// in one picture, so that one median call filters them all: each call hands
// its rows to the host's threads, and each row's ends are filtered one
// sample at a time, both of which cost more than the rows of a small plane.
// Each plane is framed by radius rows and columns: the picture's own rows
// beyond the band where it has them, else copies of the plane's edge rows
// and columns (up to the widest plane's width). The median repeats edge
// samples at its borders, so each plane's windows see what they would on
// the plane alone.
template <class T>
bool med_filterInBands_T(const SxPicBuf& in, SxPicBuf& out, const CxMedianCnbl::SxPlaneLayout& l, SxPicBuf& inStack,
                         SxPicBuf& outStack, uchar** rowPtrs, int radius, void* work, quint64 band,
                         MedPlaneFilter filter)
{
    constexpr quint64 S = sizeof(T);
    const quint64 height = in.height, ph = quint64(l.periodY), r = quint64(radius);
    const quint64 planeHeight = (height + ph - 1) / ph;  // of the first pattern row, the tallest
    const int streams = l.periodX * l.channels;
    const pixelkit::RowStreams<S> rowStreams(streams);
    const qint64 samples = qint64(in.width) * in.channels;
    const quint64 width = quint64(rowStreams.count(samples, 0));  // of the first plane, the widest
    const quint64 slotWidth = width + 2 * r;  // a plane and its frame, in samples
    const quint64 inPitch = in.effectiveLinePitch(), outPitch = out.effectiveLinePitch();
    const quint64 pitch = inStack.effectiveLinePitch();
    band = qMax<quint64>(band, 1);
    const quint64 stackWidth = slotWidth * quint64(l.count()), rowsMax = qMin(band, planeHeight) + 2 * r;
    if (inStack.width != stackWidth || outStack.width != stackWidth || outStack.effectiveLinePitch() != pitch
        || inStack.height < rowsMax || outStack.height < rowsMax)
        return false;
    // Frames beyond the cache go straight to memory: written through the
    // cache, each of their lines would first be read.
    const bool bypass = quint64(out.height) * outPitch >= kBypassBytes;
    // One median call over the whole stack filters the frames as well; once
    // they would add more than an eighth to its width (kernels near a plane's
    // width), each plane is filtered alone, its picture edges doing what the
    // frames do.
    const bool oneCall = 16 * r <= width;
    const auto cellRows = [&](quint64 oy) { return height > oy ? (height - oy + ph - 1) / ph : 0; };
    for (quint64 b0 = 0; b0 < planeHeight; b0 += band) {
        const quint64 b1 = qMin(planeHeight, b0 + band), rows = b1 - b0 + 2 * r;
        const quint64 lo = b0 > r ? b0 - r : 0, hi = qMin(planeHeight, b1 + r);
        // Plane row p of picture row y's planes is stack row p + r - b0.
        const auto rowsOf = [&](uchar* stack, quint64 y) {
            const quint64 first = (y % ph) * quint64(streams);
            uchar* row = stack + (y / ph + r - b0) * pitch;
            for (int s = 0; s < streams; ++s)
                rowPtrs[s] = row + ((first + quint64(s)) * slotWidth + r) * S;
            return rowPtrs;
        };
        const quint64 y0 = ph * lo, y1 = qMin(height, ph * hi);
        for (quint64 y = y0; y < y1; ++y)
            rowStreams.split(in.data + y * inPitch, samples, rowsOf(inStack.data, y));
        // Apart from the split: its last vector store may not have landed.
        // Planes filtered alone need only the tail that makes them as wide
        // as the widest.
        const qint64 left = oneCall ? qint64(r) : 0, right = qint64(width) + (oneCall ? qint64(r) : 0);
        for (quint64 y = y0; y < y1; ++y) {
            rowsOf(inStack.data, y);
            for (int s = 0; s < streams; ++s) {
                const qint64 c = rowStreams.count(samples, s);
                for (qint64 k = -left; k < 0 && c > 0; ++k)
                    std::memcpy(rowPtrs[s] + k * qint64(S), rowPtrs[s], S);
                for (qint64 k = c; k < right && c > 0; ++k)
                    std::memcpy(rowPtrs[s] + k * qint64(S), rowPtrs[s] + (c - 1) * qint64(S), S);
            }
        }
        for (quint64 k = 0; k + b0 < r; ++k)
            std::memcpy(inStack.data + k * pitch, inStack.data + (r - b0) * pitch, stackWidth * S);
        for (int i = 0, n = l.count(); i < n; ++i) {
            const quint64 last = cellRows(quint64(i / streams));
            uchar* const plane = inStack.data + quint64(i) * slotWidth * S;
            for (quint64 k = last + r - b0; last > 0 && k < rows; ++k)
                std::memcpy(plane + k * pitch, plane + (k - 1) * pitch, slotWidth * S);
        }
        SxPicBuf bandIn = inStack, bandOut = outStack;
        bandIn.height = bandOut.height = quint32(rows);
        if (oneCall) {
            if (!filter(bandIn, bandOut, radius, work))
                return false;
        } else {
            bandIn.width = bandOut.width = quint32(width);
            for (int i = 0, n = l.count(); i < n; ++i) {
                SxPicBuf planeIn = bandIn, planeOut = bandOut;
                const quint64 offset = (quint64(i) * slotWidth + r) * S;
                for (SxPicBuf* p : {&planeIn, &planeOut}) {
                    p->data += offset;
                    p->memCapacity = p->memCapacity > offset ? p->memCapacity - offset : 0;
                    p->memOrigin = SxPicBuf::MemBorrowed;
                }
                if (!filter(planeIn, planeOut, radius, work))
                    return false;
            }
        }
        for (quint64 y = ph * b0, y1 = qMin(height, ph * b1); y < y1; ++y)
            rowStreams.weave(rowsOf(outStack.data, y), samples, out.data + y * outPitch, bypass);
    }
    if (bypass)
        pixelkit::RowStreams<S>::fence();
    return true;
}

template bool med_filterInBands_T<quint8>(const SxPicBuf&, SxPicBuf&, const CxMedianCnbl::SxPlaneLayout&, SxPicBuf&,
                                          SxPicBuf&, uchar**, int, void*, quint64, MedPlaneFilter);
template bool med_filterInBands_T<quint16>(const SxPicBuf&, SxPicBuf&, const CxMedianCnbl::SxPlaneLayout&,
                                           SxPicBuf&, SxPicBuf&, uchar**, int, void*, quint64, MedPlaneFilter);

SxPicBufInfo med_patternRowFormat(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int oy)
{
    SxPicBufInfo f = in;
    const quint64 streams = quint64(l.periodX) * quint64(l.channels);
    f.width = quint32(quint64(in.width) * in.channels / streams);
    f.height = planeExtent(in.height, l.periodY, oy);
    f.channels = quint32(streams);
    const quint64 pitch = quint64(in.effectiveLinePitch()) * quint64(l.periodY);
    f.linePitch = quint32(qMin<quint64>(pitch, UINT_MAX));
    if (pitch > UINT_MAX)
        f.width = 0;  // no view: the planes are split instead
    f.colorFilterArray = CFA_NONE;
    f.storageFormat = DSF_PACKED;
    f.isColor = false;
    return f;
}

SxPicBuf med_patternRow(const SxPicBuf& pic, const CxMedianCnbl::SxPlaneLayout& l, int oy)
{
    SxPicBuf v = pic;
    v.setPicFormat(med_patternRowFormat(pic, l, oy));
    const quint64 offset = quint64(oy) * pic.effectiveLinePitch();
    v.data += v.height ? offset : 0;
    v.memCapacity = pic.memCapacity > offset ? pic.memCapacity - offset : 0;
    v.memOrigin = SxPicBuf::MemBorrowed;
    return v;
}

namespace {

// The strip of the planes that hold one sample more than a pattern row's
// view covers: their last 2r + 1 samples (all of them when the plane is
// narrower), as interleaved channels; the other planes' channels hold
// copies of their last sample and are not used. A strip is at least 16
// pixels wide where the plane is, so that the host's vectors cover it: one
// sample at a time, the strips of a 5 x 5 mosaic cost as much as its views.
quint32 stripWidth(const SxPicBufInfo& view, int radius)
{
    const quint64 wanted = qMax<quint64>(2 * quint64(radius) + 1, 16);
    return quint32(qMin<quint64>(quint64(view.width) + 1, wanted));
}

template <class T>
void gatherStrip(const SxPicBuf& view, quint64 rowSamples, SxPicBuf& strip)
{
    const quint64 n = view.channels, x0 = quint64(view.width) + 1 - strip.width;
    for (quint32 y = 0; y < view.height; ++y) {
        const T* src = reinterpret_cast<const T*>(view.data + y * quint64(view.effectiveLinePitch()));
        T* dst = reinterpret_cast<T*>(strip.data + y * quint64(strip.effectiveLinePitch()));
        for (quint64 i = 0, end = quint64(strip.width) * n; i < end; ++i) {
            const quint64 at = x0 * n + i;
            dst[i] = src[at < rowSamples ? at : at - n];
        }
    }
}

// The outputs whose windows reach the extra sample: the strip's last r + 1,
// whose windows stay inside it (or reach the plane's first sample); only
// the planes with the extra sample take them.
template <class T>
void scatterStrip(const SxPicBuf& strip, quint64 rowSamples, int radius, SxPicBuf& view)
{
    const quint64 n = view.channels, x0 = quint64(view.width) + 1 - strip.width, extra = rowSamples % n;
    const quint64 first = strip.width > quint64(radius) + 1 ? strip.width - quint64(radius) - 1 : 0;
    for (quint32 y = 0; y < view.height; ++y) {
        const T* src = reinterpret_cast<const T*>(strip.data + y * quint64(strip.effectiveLinePitch()));
        T* dst = reinterpret_cast<T*>(view.data + y * quint64(view.effectiveLinePitch()));
        for (quint64 j = first; j < strip.width; ++j)
            for (quint64 c = 0; c < extra; ++c)
                dst[(x0 + j) * n + c] = src[j * n + c];
    }
}

template <class T>
bool filterPlanes_T(const SxPicBuf& in, SxPicBuf& out, const CxMedianCnbl::SxPlaneLayout& l, SxPicBuf& inStack,
                    SxPicBuf& outStack, uchar** rows, int radius, void* work)
{
    if (!pixelkit::rowsFit(in) || !pixelkit::rowsFit(out))
        return false;
    return med_filterInBands_T<T>(in, out, l, inStack, outStack, rows, radius, work, med_bandRows(in, l, radius));
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
        m_setupFormat = in;
        m_setupRadius = radius;
        m_layout = layout;
        // The work buffers depend on the format and radius only.
        if (layout.count() == 1) {
            if (!CxPicBufAPI::MedianAllocBuffer(med_planeFormat(in, layout, 0, radius), radius, &m_work))
                m_work = nullptr;
            return;
        }
        SxPicBufInfo view = med_patternRowFormat(in, layout, 0);
        if (view.width == 0)
            return;
        SxPicBufInfo strip = view;
        strip.width = stripWidth(view, radius);
        strip.linePitch = 0;
        // The strips are a sample wider than the views when the planes are
        // narrower than the kernel.
        view.width = qMax(view.width, strip.width);
        if (!CxPicBufAPI::MedianAllocBuffer(view, radius, &m_viewWork))
            m_viewWork = nullptr;
        if (quint64(in.width) * in.channels % view.channels == 0)
            return;
        if (!CxPicBufAPI::AllocPicBufFromHeap(m_stripIn, strip, false, 0)
            || !CxPicBufAPI::AllocPicBufFromHeap(m_stripOut, strip, false, 0)) {
            CxPicBufAPI::MedianFreeBuffer(m_viewWork);
            m_viewWork = nullptr;
        }
    });
}

bool CxMedianCnbl::makePlanes()
{
    if (m_planeCount || m_planesRefused)
        return m_planeCount != 0;
    m_planesRefused = true;
    const SxPicBufInfo& in = m_setupFormat;
    const SxPicBufInfo f = med_stackFormat(in, m_layout, m_setupRadius);
    if (!CxPicBufAPI::MedianAllocBuffer(med_planeFormat(in, m_layout, 0, m_setupRadius), m_setupRadius, &m_work))
        m_work = nullptr;
    m_rows.assign(size_t(m_layout.periodX) * size_t(m_layout.channels), nullptr);
    // Cleared once: the slots of planes the picture has no samples for
    // are filtered with the rest, and never written.
    if (!m_work || f.width == 0 || f.height == 0 || !CxPicBufAPI::AllocPicBufFromHeap(m_inStack, f, true, 0)
        || !CxPicBufAPI::AllocPicBufFromHeap(m_outStack, f, false, 0)) {
        qCritical() << title() << "could not allocate its working planes for" << nodekit::describe(in);
        return false;
    }
    m_planeCount = m_layout.count();
    m_planesRefused = false;
    return true;
}

void CxMedianCnbl::setupStop()
{
    CxImageProvider::setupStop();
    freePlanes();
}

void CxMedianCnbl::freePlanes()
{
    for (void** work : {&m_work, &m_viewWork}) {
        CxPicBufAPI::MedianFreeBuffer(*work);
        *work = nullptr;
    }
    for (SxPicBuf* p : {&m_inStack, &m_outStack, &m_stripIn, &m_stripOut}) {
        CxPicBufAPI::FreePicBuf(*p, true);
        *p = SxPicBuf();
    }
    m_rows.clear();
    m_planeCount = 0;
    m_planesRefused = false;
    m_layout = SxPlaneLayout();
}

bool CxMedianCnbl::setUpFor(const SxPicBuf& in, const SxPlaneLayout& layout) const
{
    return layout == m_layout && in.width == m_setupFormat.width && in.height == m_setupFormat.height
        && in.dataType == m_setupFormat.dataType && in.channels == m_setupFormat.channels;
}

bool CxMedianCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                        const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        return true;
    });
}

bool CxMedianCnbl::filterViews(const SxPicBuf& in, SxPicBuf& out, int radius)
{
    if (!m_viewWork)
        return false;
    const quint64 rowSamples = quint64(in.width) * in.channels;
    for (int oy = 0; oy < m_layout.periodY; ++oy) {
        const SxPicBuf from = med_patternRow(in, m_layout, oy);
        SxPicBuf to = med_patternRow(out, m_layout, oy);
        if (!CxPicBufAPI::Median(from, to, radius, m_viewWork))
            return false;
        if (rowSamples % from.channels == 0 || from.height == 0)
            continue;
        m_stripIn.height = m_stripOut.height = from.height;
        const bool byte = in.dataType == IDT_UINT8;
        byte ? gatherStrip<quint8>(from, rowSamples, m_stripIn) : gatherStrip<quint16>(from, rowSamples, m_stripIn);
        if (!CxPicBufAPI::Median(m_stripIn, m_stripOut, radius, m_viewWork))
            return false;
        byte ? scatterStrip<quint8>(m_stripOut, rowSamples, radius, to)
             : scatterStrip<quint16>(m_stripOut, rowSamples, radius, to);
    }
    return true;
}

bool CxMedianCnbl::filterPlanes(const SxPicBuf& in, SxPicBuf& out, int radius)
{
    if (filterViews(in, out, radius))
        return true;
    if (!makePlanes())
        return false;
    if (in.dataType == IDT_UINT8)
        return filterPlanes_T<quint8>(in, out, m_layout, m_inStack, m_outStack, m_rows.data(), radius, m_work);
    return filterPlanes_T<quint16>(in, out, m_layout, m_inStack, m_outStack, m_rows.data(), radius, m_work);
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
        if (layout.count() == 1 ? !m_work : !setUpFor(f.in, layout) || radius != m_setupRadius)
            return nodekit::PassOn;
        return nodekit::Go;
    };
    return nodekit::processFrame(this, data, kFrame, admit, [&](nodekit::Frame& f) {
        const bool done = layout.count() > 1 ? filterPlanes(f.in, f.out, radius)
                                             : CxPicBufAPI::Median(f.in, f.out, radius, m_work);
        return done ? nodekit::Go : nodekit::PassOn;
    });
}
