#include "ExtractChannelCnbl.h"
#include "ExtractChannelWidget.h"

#include <QtXml/QDomDocument>

#include <cstring>
#include <limits>

namespace {

const QString kChannelAttribute = QStringLiteral("channelIdx");

constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingDropped, nodekit::PoolFixed};

// Every picture dimension fits 32 bits, so a step at least this long leaves
// any picture in one go; capping there keeps the arithmetic of nonsense
// camera descriptions from overflowing.
constexpr qint64 kFarAway = qint64(1) << 40;

// Both factors are positive.
qint64 cappedMul(qint64 a, qint64 b)
{
    return a > kFarAway / b ? kFarAway : qMin(a * b, kFarAway);
}

qint64 cappedAdd(qint64 a, qint64 b)
{
    return qMin(a + qMin(b, kFarAway), kFarAway);
}

// Samples move through memcpy because a row may start at any byte (a 16-bit
// picture with an odd row padding); the compiler turns each call into one
// plain load and store.
template <class T>
inline void copySample(uchar* dst, const uchar* src)
{
    std::memcpy(dst, src, sizeof(T));
}

// Cell (cx, cy) of each 2x2 cell. The output is filled over its whole size;
// cells the input does not have complete (only an output taller or wider
// than the input's halves, as a subclass may ask for) are written as 0.
template <class T>
void extr_extractBayerCell_T(SxPicBuf& out, const SxPicBuf& in, quint64 cx, quint64 cy)
{
    constexpr quint64 S = sizeof(T);
    const quint64 outW = out.width, outH = out.height;
    const quint64 inPitch = in.effectiveLinePitch(), outPitch = out.effectiveLinePitch();
    const quint64 cols = qMin<quint64>(outW, in.width > cx ? (in.width - cx + 1) / 2 : 0);
    const quint64 rows = qMin<quint64>(outH, in.height > cy ? (in.height - cy + 1) / 2 : 0);

    for (quint64 r = 0; r < outH; ++r) {
        uchar* dst = out.data + r * outPitch;
        quint64 i = 0;
        if (r < rows) {
            const uchar* src = in.data + (cy + 2 * r) * inPitch + cx * S;
            for (; i < cols; ++i)
                copySample<T>(dst + i * S, src + 2 * i * S);
        }
        if (i < outW)
            std::memset(dst + i * S, 0, size_t((outW - i) * S));
    }
}

// Pure sample moves: one instantiation per sample width.
bool extractBayerCell(SxPicBuf& out, const SxPicBuf& in, unsigned int k)
{
    if (in.dataType != out.dataType || in.channels != 1 || out.channels != 1)
        return false;
    if (out.width == 0 || out.height == 0)
        return true;
    if (!out.data || !nodekit::rowsFit(in) || !nodekit::rowsFit(out))
        return false;
    const quint64 cx = (k == 1 || k == 3) ? 1 : 0;
    const quint64 cy = k >= 2 ? 1 : 0;
    switch (in.dataType) {
    case IDT_UINT8:
        extr_extractBayerCell_T<quint8>(out, in, cx, cy);
        return true;
    case IDT_UINT16:
        extr_extractBayerCell_T<quint16>(out, in, cx, cy);
        return true;
    case IDT_UINT32:
    case IDT_FLOAT:
        extr_extractBayerCell_T<quint32>(out, in, cx, cy);
        return true;
    default:
        return false;
    }
}

// One output row of a band: runs of cellWidth samples whose first input
// columns lie runStep apart, starting at column x0.
template <class T>
void copyBandRow(uchar* dst, const uchar* src, qint64 outW, qint64 inW, qint64 x0, qint64 cellW,
                 qint64 runStep)
{
    constexpr qint64 S = sizeof(T);
    if (cellW == 1) {
        // Single-pixel cells: a plain stride, the common case, kept tight.
        qint64 i = 0, x = x0;
        for (; i < outW && x < 0; ++i, x = cappedAdd(x, runStep))
            std::memset(dst + i * S, 0, S);
        for (; i < outW && x < inW; ++i, x += runStep)
            copySample<T>(dst + i * S, src + x * S);
        if (i < outW)
            std::memset(dst + i * S, 0, size_t((outW - i) * S));
        return;
    }
    qint64 o = 0;
    for (qint64 runX = x0; o < outW; runX = cappedAdd(runX, runStep)) {
        for (qint64 j = 0; j < cellW && o < outW; ++j, ++o) {
            const qint64 x = runX + j;
            if (x >= 0 && x < inW)
                copySample<T>(dst + o * S, src + x * S);
            else
                std::memset(dst + o * S, 0, S);
        }
    }
}

bool extractHsiBand(SxPicBuf& out, const SxPicBuf& in, const CxImageMetadata* meta, unsigned int k)
{
    if (k > unsigned(std::numeric_limits<int>::max()))
        return false;
    const int band = int(k);
    switch (in.dataType) {
    case IDT_UINT8: return extr_extractHsiChannel_T<unsigned char>(out, in, meta, band);
    case IDT_UINT16: return extr_extractHsiChannel_T<unsigned short>(out, in, meta, band);
    case IDT_UINT32: return extr_extractHsiChannel_T<unsigned int>(out, in, meta, band);
    case IDT_FLOAT: return extr_extractHsiChannel_T<float>(out, in, meta, band);
    default: return false;
    }
}

} // namespace

template <class T>
bool extr_extractHsiChannel_T(SxPicBuf& out, const SxPicBuf& in, const CxImageMetadata* meta,
                              int totalBandIdx)
{
    constexpr qint64 S = sizeof(T);
    if (!meta || !in.data || in.channels != 1 || out.channels != 1)
        return false;
    if (in.bytesPerSample() != S || out.bytesPerSample() != S)
        return false;
    CxHsiCameraParams::SxBandIdx idx;
    const CxHsiCameraParams::CxFilterZone* zone =
        meta->hsiCameraParams().filterZoneWithTotalBandIdx(totalBandIdx, &idx);
    if (!zone || idx.band < 0)
        return false;
    const qint64 px = zone->patternWidth, py = zone->patternHeight;
    const qint64 cellW = zone->cellWidth, cellH = zone->cellHeight;
    if (px <= 0 || py <= 0 || cellW <= 0 || cellH <= 0)
        return false;
    if (out.width == 0 || out.height == 0)
        return true;
    if (!out.data || !nodekit::rowsFit(in) || !nodekit::rowsFit(out))
        return false;

    qint64 x0 = (idx.band % px) * cellW;
    qint64 y0 = (idx.band / px) * cellH;
    const QRect& rect = zone->rect;
    if (rect.left() <= rect.right() && rect.top() <= rect.bottom()) {
        x0 += rect.left();
        y0 += rect.top();
    }

    const qint64 outW = out.width, outH = out.height;
    const qint64 inW = in.width, inH = in.height;
    const qint64 inPitch = qint64(in.effectiveLinePitch());
    const qint64 outPitch = qint64(out.effectiveLinePitch());
    const qint64 runStep = cappedMul(px, cellW);
    // Groups of cellH rows start patternHeight x cellH x cellH rows apart.
    const qint64 groupStep = cappedMul(cappedMul(py, cellH), cellH);

    qint64 r = 0;
    for (qint64 groupY = y0; r < outH; groupY = cappedAdd(groupY, groupStep)) {
        for (qint64 s = 0; s < cellH && r < outH; ++s, ++r) {
            uchar* dst = out.data + r * outPitch;
            const qint64 y = groupY + s;
            if (y < 0 || y >= inH)
                std::memset(dst, 0, size_t(outW * S));
            else
                copyBandRow<T>(dst, in.data + y * inPitch, outW, inW, x0, cellW, runStep);
        }
    }
    return true;
}

template bool extr_extractHsiChannel_T<unsigned char>(SxPicBuf&, const SxPicBuf&,
                                                      const CxImageMetadata*, int);
template bool extr_extractHsiChannel_T<unsigned short>(SxPicBuf&, const SxPicBuf&,
                                                       const CxImageMetadata*, int);
template bool extr_extractHsiChannel_T<unsigned int>(SxPicBuf&, const SxPicBuf&,
                                                     const CxImageMetadata*, int);
template bool extr_extractHsiChannel_T<float>(SxPicBuf&, const SxPicBuf&, const CxImageMetadata*, int);

CxExtractChannelCnbl::CxExtractChannelCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor))
{
}

CxExtractChannelCnbl::~CxExtractChannelCnbl() = default;

QString CxExtractChannelCnbl::title() const
{
    return tr("Extract");
}

CxChainable* CxExtractChannelCnbl::clone()
{
    auto* copy = new CxExtractChannelCnbl;
    copy->m_channel = m_channel;
    return copy;
}

QWidget* CxExtractChannelCnbl::configurationWidget()
{
    return new CxExtractChannelWidget(this);
}

void CxExtractChannelCnbl::simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                                    bool& hasButtons)
{
    QList<QString> names;
    QList<int> indices;
    int current = 0;
    listOfAvailableChannels(names, indices, &current);
    // The node offers quick buttons, though one channel needs no choice and
    // more than four do not fit on a node: the list is empty then.
    hasButtons = true;
    if (names.size() < 2 || names.size() > 4)
        return;
    for (int i = 0; i < names.size(); ++i)
        buttons.append(CxSimpleStateConfigButton(names.at(i), indices.at(i), true, indices.at(i) == current));
}

void CxExtractChannelCnbl::simpleStateConfigButtonPressed(int id)
{
    setChannel(unsigned(id), QString(), true);
}

bool CxExtractChannelCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kChannelAttribute, QString::number(m_channel));
    return result;
}

bool CxExtractChannelCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    // Unlike most settings, a missing channel reads as 0.
    setChannel(nodekit::attribute(element, kChannelAttribute, 0u));
    return result;
}

QString CxExtractChannelCnbl::help(QString& anchor)
{
    return tr("Extracts one channel from the input image.<br>Can be used for extracting RAW channels and HSI bands too.");
}

void CxExtractChannelCnbl::setChannel(unsigned int channel)
{
    m_channel = channel;
}

void CxExtractChannelCnbl::setChannel(unsigned int channel, const QString& name, bool restart)
{
    nodekit::setWithRestart(this, restart, [this, channel, name] {
        m_channel = channel;
        m_channelName = name;
    });
}

unsigned int CxExtractChannelCnbl::extractingComponentIndex(const SxPicBufInfo& info,
                                                            const CxImageMetadata* meta) const
{
    const unsigned int ch = m_channel;
    quint64 n = info.channels;
    if (n == 1) {
        if (info.colorFilterArray == CFA_NONE || info.storageFormat == DSF_NOT_RAW)
            return 0;
        if (isTwoByTwoMosaic(info.colorFilterArray))
            return ch < 4 ? ch : 3;
        if (info.colorFilterArray != CFA_HSI_MOSAIC)
            return 0;
        n = meta ? quint64(qMax(0, meta->hsiCameraParams().totalBandCountInAllZones())) : 0;
    }
    if (n == 0 || ch < n)
        return ch;
    return unsigned(n - 1);
}

void CxExtractChannelCnbl::listOfAvailableChannels(QList<QString>& names, QList<int>& indices,
                                                   int* current)
{
    names.clear();
    indices.clear();
    SxPicBufInfo info;
    CxImageMetadata meta;
    const bool known = currentInputImageInfo(info, &meta);
    if (current)
        *current = int(extractingComponentIndex(info, known ? &meta : nullptr));
    if (!known)
        return;

    auto add = [&](const QString& name, int index) {
        names.append(name);
        indices.append(index);
    };
    auto numbered = [](int index) {
        return QStringLiteral("%1 %2").arg(tr("Channel"), QString::number(index));
    };

    const QStringList given = meta.channelNames();
    const quint32 n = info.channels;
    if (quint64(given.size()) == n) {
        for (int i = 0; i < given.size(); ++i)
            add(given.at(i), i);
        return;
    }
    if (n > 1) {
        if (info.isColor && (n == 3 || n == 4)) {
            // Colour pictures are stored blue first.
            const QString planes[] = {tr("Blue"), tr("Green"), tr("Red"), tr("Alpha")};
            for (quint32 i = 0; i < n; ++i)
                add(planes[i], int(i));
        } else {
            for (quint32 i = 0; i < n; ++i)
                add(numbered(int(i)), int(i));
        }
        return;
    }
    if (n == 0)
        return;

    const bool raw = info.storageFormat != DSF_NOT_RAW;
    if (raw && isTwoByTwoMosaic(info.colorFilterArray)) {
        for (int cell = 0; cell < 4; ++cell)
            add(nodekit::cellColourName(staticMetaObject.className(), info.colorFilterArray, cell), cell);
        return;
    }
    const CxHsiCameraParams& hsi = meta.hsiCameraParams();
    if (raw && info.colorFilterArray == CFA_HSI_MOSAIC && hsi.isValid()) {
        int first = 0;
        for (const CxHsiCameraParams::CxFilterZone& zone : hsi.filterZones()) {
            for (int b : zone.sortedBandIdxs(false)) {
                const QString name = zone.bands.at(b).name();
                add(name.isEmpty() ? numbered(first + b) : name, first + b);
            }
            first += int(zone.bands.size());
        }
        return;
    }
    add(tr("Mono"), 0);
}

bool CxExtractChannelCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                                const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        out.channels = 1;
        out.isColor = false;

        if (in.channels == 1 && in.colorFilterArray != CFA_NONE && in.storageFormat != DSF_NOT_RAW) {
            if (isTwoByTwoMosaic(in.colorFilterArray)) {
                out.width = in.width / 2;
                out.height = in.height / 2;
                out.colorFilterArray = CFA_NONE;
                if (outMeta) {
                    outMeta->setColorFilterArray(CFA_NONE);
                    outMeta->setChannelNames(QStringList());
                }
            } else if (in.colorFilterArray == CFA_HSI_MOSAIC) {
                const unsigned int k = extractingComponentIndex(in, inMeta);
                const CxHsiCameraParams::CxFilterZone* zone =
                    inMeta && k <= unsigned(std::numeric_limits<int>::max())
                        ? inMeta->hsiCameraParams().filterZoneWithTotalBandIdx(int(k), nullptr)
                        : nullptr;
                if (zone)
                    nodekit::bandSize(*zone, in.width, in.height, out.width, out.height);
                out.colorFilterArray = CFA_NONE;
                if (outMeta) {
                    outMeta->setColorFilterArray(CFA_NONE);
                    outMeta->setHsiCameraParams(CxHsiCameraParams());
                }
            }
        }

        const quint64 pitch = (quint64(out.bytesPerSample()) * out.channels * out.width + 3) & ~quint64(3);
        // A row too long for the field is left to the allocator, which refuses it.
        out.linePitch = pitch <= std::numeric_limits<quint32>::max() ? quint32(pitch) : 0;
        return true;
    });
}

IxChainData* CxExtractChannelCnbl::processData(IxChainData* data)
{
    return nodekit::processFrame(this, data, kFrame, [this](nodekit::Frame& f) {
        const SxPicBuf& in = f.in;
        const unsigned int k = extractingComponentIndex(in, f.meta);
        bool done = false;
        if (in.channels == 1 && in.storageFormat != DSF_NOT_RAW) {
            if (isTwoByTwoMosaic(in.colorFilterArray))
                done = extractBayerCell(f.out, in, k);
            else if (in.colorFilterArray == CFA_HSI_MOSAIC && f.meta && f.meta->hsiCameraParams().isValid())
                done = extractHsiBand(f.out, in, f.meta, k);
            if (done && f.out.dataType == IDT_FLOAT)
                CxPicBufAPI::CalcFloatDataMinMax(f.out, f.out.floatMin, f.out.floatMax, false);
        }
        if (!done)
            done = CxPicBufAPI::ExtractChannel(in, f.out, k);
        // A picture of undefined content must not travel on as if extracted.
        return done ? nodekit::Go : nodekit::Drop;
    });
}
