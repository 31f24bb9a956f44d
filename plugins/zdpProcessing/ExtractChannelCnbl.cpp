#include "ExtractChannelCnbl.h"
#include "ExtractChannelWidget.h"
#include "NodeKit.h"

#include <CxHsiCameraParams.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>
#include <SxPicBuf.h>

#include <KitDispatch.h>
#include <KitMosaic.h>

#include <QtXml/QDomDocument>
#include <QtXml/QDomElement>

#include <cstring>
#include <limits>

namespace {

// Chain document attribute; the name is part of the saved-file format.
const QString kChannelAttribute = QStringLiteral("channelIdx");

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

enum ExCellColour { Red, Green, Blue, Cyan, Magenta, Yellow };

struct SxCellName
{
    ExCellColour colour;
    int number;  // 0: the only cell of its colour; 1, 2: first and second
};

// The 2x2 cells of filter arrays 1..6, row by row from the top-left.
const SxCellName kCellNames[6][4] = {
    {{Red, 0}, {Green, 1}, {Green, 2}, {Blue, 0}},
    {{Green, 1}, {Red, 0}, {Blue, 0}, {Green, 2}},
    {{Green, 1}, {Blue, 0}, {Red, 0}, {Green, 2}},
    {{Blue, 0}, {Green, 1}, {Green, 2}, {Red, 0}},
    {{Cyan, 0}, {Magenta, 0}, {Yellow, 0}, {Green, 0}},
    {{Red, 1}, {Green, 0}, {Blue, 0}, {Red, 2}},
};

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

bool CxExtractChannelCnbl::acceptsDataFrom(CxChainable* predecessor)
{
    return qobject_cast<CxImageProvider*>(predecessor) != nullptr;
}

int CxExtractChannelCnbl::buffersCountInMemoryPool() const
{
    return 1;
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

bool CxExtractChannelCnbl::hasConfigurationWidget() const
{
    return true;
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
    bool ok = false;
    const uint value = element.attribute(kChannelAttribute, QStringLiteral("0")).toUInt(&ok, 10);
    setChannel(ok ? value : 0u);
    return result;
}

bool CxExtractChannelCnbl::hasHelp() const
{
    return true;
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
        const QString colours[] = {tr("Red"), tr("Green"), tr("Blue"),
                                   tr("Cyan"), tr("Magenta"), tr("Yellow")};
        for (int cell = 0; cell < 4; ++cell) {
            const SxCellName& c = kCellNames[info.colorFilterArray - CFA_BAYER_RGGB][cell];
            const QString colour = colours[c.colour];
            if (c.number == 1)
                add(tr("%1 1").arg(colour), cell);
            else if (c.number == 2)
                add(tr("%1 2").arg(colour), cell);
            else
                add(colour, cell);
        }
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
try {
    out = in;
    out.channels = 1;
    out.isColor = false;
    if (outMeta)
        *outMeta = inMeta ? *inMeta : CxImageMetadata();

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
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "queryOutputImageInfo", e);
    return false;
}

IxChainData* CxExtractChannelCnbl::processData(IxChainData* data)
try {
    if (!data)
        return nullptr;
    if (state() == StateStopping)
        return nullptr;
    auto* input = qobject_cast<CxImageData*>(data);
    if (!input)
        return data;

    const SxPicBuf* inPic = input->picBuf();
    const CxImageMetadata* inMeta = input->metadata();
    SxPicBufInfo outInfo;
    CxImageMetadata outMeta;
    if (!queryOutputImageInfo(*inPic, outInfo, inMeta, &outMeta) || !inPic->data)
        return nullptr;

    SxPicBuf outPic;
    if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, outPic, outInfo, false))
        return nullptr;

    const unsigned int k = extractingComponentIndex(*inPic, inMeta);
    bool done = false;
    if (inPic->channels == 1 && inPic->storageFormat != DSF_NOT_RAW) {
        if (isTwoByTwoMosaic(inPic->colorFilterArray))
            done = extractBayerCell(outPic, *inPic, k);
        else if (inPic->colorFilterArray == CFA_HSI_MOSAIC && inMeta && inMeta->hsiCameraParams().isValid())
            done = extractHsiBand(outPic, *inPic, inMeta, k);
        if (done && outPic.dataType == IDT_FLOAT)
            CxPicBufAPI::CalcFloatDataMinMax(outPic, outPic.floatMin, outPic.floatMax, false);
    }
    if (!done)
        done = CxPicBufAPI::ExtractChannel(*inPic, outPic, k);
    if (!done) {
        // A picture of undefined content must not travel on as if extracted.
        CxPicBufAPI::FreePicBuf(outPic, false);
        return nullptr;
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
