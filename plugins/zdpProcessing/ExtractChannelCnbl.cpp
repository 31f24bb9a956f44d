#include "ExtractChannelCnbl.h"
#include "ExtractChannelWidget.h"

#include <KitDispatch.h>
#include <KitMosaic.h>

#include <QtXml/QDomDocument>

#include <cstring>
#include <limits>

namespace {

const QString kChannelAttribute = QStringLiteral("channelIdx");

constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingDropped, nodekit::PoolFixed};

// Cell (cx, cy) of each 2x2 cell. The output is filled over its whole size;
// cells the input does not have complete (only an output taller or wider
// than the input's halves, as a subclass may ask for) are written as 0.
template <class T>
void extr_extractBayerCell_T(SxPicBuf& out, const SxPicBuf& in, quint64 cx, quint64 cy)
{
    const pixelkit::MosaicPlane cell{qint64(cx), qint64(cy), 2, 2, 1, 1};
    pixelkit::gatherPlane<sizeof(T)>(pixelkit::rowsOf(in), cell, pixelkit::rowsOf(out));
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
    using Moved = pixelkit::Only<quint8, quint16, quint32, float>;
    if (!pixelkit::withSampleTypeIn<Moved>(in.dataType, [](auto) { return true; }))
        return false;
    return pixelkit::withSampleBytes(in.bytesPerSample(), [&](auto tag) {
        extr_extractBayerCell_T<typename decltype(tag)::type>(out, in, cx, cy);
        return true;
    });
}

bool extractHsiBand(SxPicBuf& out, const SxPicBuf& in, const CxImageMetadata* meta, unsigned int k)
{
    if (k > unsigned(std::numeric_limits<int>::max()))
        return false;
    const int band = int(k);
    using Banded = pixelkit::Only<quint8, quint16, quint32, float>;
    return pixelkit::withSampleTypeIn<Banded>(in.dataType, [&](auto tag) {
        return extr_extractHsiChannel_T<typename decltype(tag)::type>(out, in, meta, band);
    });
}

} // namespace

template <class T>
bool extr_extractHsiChannel_T(SxPicBuf& out, const SxPicBuf& in, const CxImageMetadata* meta,
                              int totalBandIdx)
{
    return pixelkit::gatherBand<sizeof(T)>(out, in, meta, totalBandIdx);
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
