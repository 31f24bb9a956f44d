#include "FFT2DCnbl.h"
#include "FFT2DWidget.h"

#include <CxFFT.h>
#include <CxFFTImageData.h>

#include <KitDispatch.h>
#include <KitMosaic.h>
#include <KitPicture.h>

#include <QtXml/QDomDocument>

#include <cstring>

namespace {

const QString kChannelAttribute = QStringLiteral("channel");

// The output is a spectrum packet of two pool pictures, so only the packet
// checks of the frame scaffold apply.
constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingPassed, nodekit::PoolFixed};

// Only the top-left part of out that the cell fills is written; the rest
// keeps what it holds.
template <class T>
void copyMosaicCell_T(const SxPicBuf& in, SxPicBuf& out, quint32 rowOffset, quint32 colOffset)
{
    const quint32 rows = qMin<quint32>(out.height, in.height > rowOffset ? (in.height - rowOffset + 1) / 2 : 0);
    const quint32 cols = qMin<quint32>(out.width, in.width > colOffset ? (in.width - colOffset + 1) / 2 : 0);
    pixelkit::SampleRows<uchar> filled = pixelkit::rowsOf(out);
    filled.width = cols;
    filled.height = rows;
    const pixelkit::MosaicPlane cell{colOffset, rowOffset, 2, 2, 1, 1};
    pixelkit::gatherPlane<sizeof(T)>(pixelkit::rowsOf(in), cell, filled);
}

bool fitsSamples(const SxPicBuf& pic)
{
    return pic.data && pic.channels == 1 && pixelkit::rowsFit(pic) && pixelkit::samplesAligned(pic);
}

// The top-left part of work that the cut-out of channel fills: a 2x2 cell,
// or a band as far as its own filter zone reaches (the size Extract Channel
// gives it), never more than work holds. Planes fill work whole.
SxPicBuf cutOutArea(const SxPicBuf& in, const CxImageMetadata* meta, int channel, const SxPicBuf& work)
{
    SxPicBuf cut = work;
    if (in.channels != 1 || channel < 0)
        return cut;
    quint32 w = work.width, h = work.height;
    if (in.colorFilterArray == CFA_HSI_MOSAIC) {
        const CxHsiCameraParams::CxFilterZone* zone =
            meta ? meta->hsiCameraParams().filterZoneWithTotalBandIdx(channel, nullptr) : nullptr;
        if (zone)
            nodekit::bandSize(*zone, in.width, in.height, w, h);
    } else if (channel < 4) {
        const quint32 rowOffset = channel > 1 ? 1 : 0, colOffset = channel & 1;
        w = in.width > colOffset ? (in.width - colOffset + 1) / 2 : 0;
        h = in.height > rowOffset ? (in.height - rowOffset + 1) / 2 : 0;
    }
    cut.width = qMin(w, work.width);
    cut.height = qMin(h, work.height);
    return cut;
}

// Zeroes every sample of work outside its top-left width x height.
void clearAround(SxPicBuf& work, quint32 width, quint32 height)
{
    if (width >= work.width && height >= work.height)
        return;
    const quint64 sample = work.bytesPerPixel(), rowBytes = work.packedLineBytes();
    for (quint32 y = 0; y < work.height; ++y) {
        const quint64 keep = y < height ? width * sample : 0;
        std::memset(work.rowPtr(y) + keep, 0, size_t(rowBytes - keep));
    }
}

} // namespace

bool fft_copyMosaicCell(const SxPicBuf& in, SxPicBuf& out, int channel)
{
    if (!fitsSamples(in) || !fitsSamples(out) || in.dataType != out.dataType)
        return false;
    const quint32 rowOffset = channel > 1 ? 1 : 0;
    const quint32 colOffset = (channel & ~2) != 0 ? 1 : 0;
    if (in.bytesPerSample() > 2)
        return false;
    return pixelkit::withSampleBytes(in.bytesPerSample(), [&](auto tag) {
        copyMosaicCell_T<typename decltype(tag)::type>(in, out, rowOffset, colOffset);
        return true;
    });
}

const SxPicBuf* fft_selectChannel(const SxPicBuf& in, const CxImageMetadata* meta, int channel, SxPicBuf& work)
{
    if (in.channels == 1 && (in.colorFilterArray == CFA_NONE || channel < 0))
        return &in;
    if (channel < 0 || !work.data || work.dataType != in.dataType)
        return nullptr;
    bool done = false;
    if (in.channels > 1) {
        done = CxPicBufAPI::ExtractChannel(in, work, unsigned(channel));
    } else if (in.colorFilterArray == CFA_HSI_MOSAIC) {
        done = in.dataType == IDT_UINT8 ? pixelkit::gatherBand<1>(work, in, meta, channel)
                                        : pixelkit::gatherBand<2>(work, in, meta, channel);
    } else if (channel < 4) {
        done = fft_copyMosaicCell(in, work, channel);
    }
    return done ? &work : nullptr;
}

CxFFT2DCnbl::CxFFT2DCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor))
{
}

CxFFT2DCnbl::~CxFFT2DCnbl()
{
    setupStop();
}

QString CxFFT2DCnbl::title() const
{
    SxPicBufInfo info;
    CxImageMetadata meta;
    inputFormat(info, &meta);
    if (!isSupportedInput(info))
        return tr("FFT 2D\nUnsupported format");
    return tr("FFT 2D (%1)").arg(channelNameForIndex(channel(), info, &meta.hsiCameraParams()));
}

CxChainable* CxFFT2DCnbl::clone()
{
    auto* copy = new CxFFT2DCnbl;
    copy->setChannel(channel());
    return copy;
}

QWidget* CxFFT2DCnbl::configurationWidget()
{
    return new CxFFT2DWidget(this);
}

bool CxFFT2DCnbl::hasConfigurationWidget() const
{
    SxPicBufInfo info;
    inputFormat(info, nullptr);
    return info.isColor
        || (info.channels == 1 && info.colorFilterArray != CFA_NONE && info.storageFormat != DSF_NOT_RAW);
}

bool CxFFT2DCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kChannelAttribute, channel());
    return result;
}

bool CxFFT2DCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    setChannel(nodekit::attribute(element, kChannelAttribute, channel()));
    return result;
}

QString CxFFT2DCnbl::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return tr("Performs the 2D Fast Fourier Transform on the given input image channel.");
}

int CxFFT2DCnbl::channel() const
{
    return nodekit::lockedGet(this, m_channel);
}

void CxFFT2DCnbl::setChannel(int channel)
{
    if (nodekit::lockedSet(this, m_channel, channel))
        emit titleChanged(this);
}

void CxFFT2DCnbl::inputFormat(SxPicBufInfo& info, CxImageMetadata* meta) const
{
    nodekit::locked(this, [&] {
        info = m_inInfo;
        if (meta)
            *meta = m_inMeta;
    });
}

QString CxFFT2DCnbl::channelNameForIndex(int index, const SxPicBufInfo& info, const CxHsiCameraParams* hsi)
{
    if (info.channels > 1) {
        if (!info.isColor)
            return QStringLiteral("%1 %2").arg(tr("Channel"), QString::number(index));
        return index == 1 ? tr("Green") : index == 2 ? tr("Blue") : tr("Red");
    }
    if (info.colorFilterArray == CFA_NONE || info.storageFormat == DSF_NOT_RAW)
        return tr("Mono");
    if (isTwoByTwoMosaic(info.colorFilterArray))
        return index >= 0 && index < 4 ? nodekit::cellColourName(staticMetaObject.className(), info.colorFilterArray, index)
                                       : tr("Whole image");
    if (info.colorFilterArray == CFA_HSI_MOSAIC) {
        const qint64 bands = hsi ? qint64(hsi->bandsAcross()) * hsi->bandsDown() : 0;
        CxHsiCameraParams::SxBandIdx idx;
        const CxHsiCameraParams::CxFilterZone* zone =
            index >= 0 && index < bands ? hsi->filterZoneWithTotalBandIdx(index, &idx) : nullptr;
        if (zone && idx.band >= 0 && idx.band < zone->bands.size())
            return zone->bands.at(idx.band).name();
        return tr("Mono");
    }
    return QString();
}

void CxFFT2DCnbl::channelList(const SxPicBufInfo& info, const CxHsiCameraParams& hsi, QList<QString>& names,
                              QList<int>& indices)
{
    const auto add = [&](int index) {
        names.append(channelNameForIndex(index, info, &hsi));
        indices.append(index);
    };
    if (info.channels > 1) {
        for (int i = 0; i < int(qMin<quint32>(info.channels, 4)); ++i)
            add(i);
    } else if (info.channels == 1 && info.storageFormat != DSF_NOT_RAW) {
        if (isTwoByTwoMosaic(info.colorFilterArray)) {
            for (int i = -1; i < 4; ++i)
                add(i);
        } else if (info.colorFilterArray == CFA_HSI_MOSAIC) {
            // As many rows as channelNameForIndex has names for.
            const int bands = hsi.bandsAcross() * hsi.bandsDown();
            for (int i = -1; i < bands; ++i)
                add(i);
        }
    }
}

bool CxFFT2DCnbl::isSupportedInput(const SxPicBufInfo& info)
{
    if (info.channels > 1)
        return info.isColor;
    return !(info.colorFilterArray != CFA_NONE && !info.isColor && info.storageFormat == DSF_NOT_RAW);
}

bool CxFFT2DCnbl::isTransformableFormat(const SxPicBufInfo& info)
{
    return info.storageFormat == DSF_PACKED && info.channels <= 4 && bytesPerSampleOf(info.dataType) <= 2;
}

bool CxFFT2DCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                       const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        if (!isTransformableFormat(in))
            return false;
        out = in;
        out.linePitch = 0;
        out.channels = 1;
        // 32-bit integers by type, floats by content: the host sizes and labels
        // the pool by this format, and spectrum consumers read the parts as floats.
        out.bitsPerSample = 32;
        out.dataType = IDT_INT32;
        out.storageFormat = DSF_PACKED;
        out.colorFilterArray = CFA_NONE;
        out.isColor = false;
        if (outMeta && inMeta)
            *outMeta = *inMeta;
        return true;
    });
}

void CxFFT2DCnbl::setupStart()
{
    nodekit::guarded(this, "setupStart", [&] {
        setupStop();
        SxPicBufInfo in, out;
        CxImageMetadata inMeta;
        if (!currentInputImageInfo(in, &inMeta))
            return;
        {
            QMutexLocker lock(nodeMutex());
            m_inInfo = in;
            m_inMeta = inMeta;
        }
        emit titleChanged(this);
        if (!queryOutputImageInfo(in, out, &inMeta, nullptr))
            return;
        if (!CxFFT::Alloc2D(out, m_fft1, m_fft2, m_fft3)) {
            CxFFT::Free2D(m_fft1, m_fft2, m_fft3);
            m_fft1 = m_fft2 = m_fft3 = nullptr;
            return;
        }
        // Only layouts that can name a channel need the cut-out; a plain mono
        // camera frame would waste a picture's worth of memory on it.
        if (in.channels > 1 || in.colorFilterArray != CFA_NONE) {
            SxPicBufInfo work = in;
            work.width = out.width;
            work.height = out.height;
            work.channels = 1;
            work.linePitch = 0;
            work.isColor = false;
            work.colorFilterArray = CFA_NONE;
            // Cleared once: a cell or band fills only the top-left corner.
            CxPicBufAPI::AllocPicBufFromHeap(m_extract, work, true, 0);
        }
        m_filledWidth = m_filledHeight = 0;
    });
}

void CxFFT2DCnbl::setupStop()
{
    if (m_fft1 || m_fft2 || m_fft3)
        CxFFT::Free2D(m_fft1, m_fft2, m_fft3);
    m_fft1 = m_fft2 = m_fft3 = nullptr;
    CxPicBufAPI::FreePicBuf(m_extract, true);
}

IxChainData* CxFFT2DCnbl::processData(IxChainData* data)
{
    return nodekit::guarded(this, "processData", [&]() -> IxChainData* {
        IxChainData* answer = nullptr;
        const CxImageData* input = nodekit::pictureOf(this, data, kFrame, answer);
        if (!input)
            return answer;

        const SxPicBuf* inPic = input->picBuf();
        SxPicBufInfo outInfo;
        CxImageMetadata outMeta;
        if (!isSupportedInput(*inPic) || !queryOutputImageInfo(*inPic, outInfo, input->metadata(), &outMeta)) {
            nodekit::tell(this, tr("The input image data type is not supported."));
            return data;
        }
        if (!inPic->data)
            return nullptr;

        const int ch = channel();
        SxPicBuf cut = cutOutArea(*inPic, input->metadata(), ch, m_extract);
        const SxPicBuf* source = fft_selectChannel(*inPic, input->metadata(), ch, cut);
        if (source == &cut) {
            // Clearing is a pass over most of the picture, so it is left out
            // while the cut-out covers whatever an earlier one left behind.
            if (m_filledWidth > cut.width || m_filledHeight > cut.height)
                clearAround(m_extract, cut.width, cut.height);
            m_filledWidth = cut.width;
            m_filledHeight = cut.height;
            source = &m_extract;
        } else if (!source) {
            m_filledWidth = m_extract.width;  // a failed cut-out may have written anything
            m_filledHeight = m_extract.height;
        }
        if (!source) {
            nodekit::tell(this, tr("The input image has no channel %1.").arg(ch));
            return data;
        }

        SxPicBuf re, im;
        if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, re, outInfo, kFrame.pool))
            return nullptr;
        if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, im, outInfo, kFrame.pool)
            || !CxFFT::Calc2D(*source, re, im, m_fft1, m_fft2, m_fft3)) {
            CxPicBufAPI::FreePicBuf(re, true);
            CxPicBufAPI::FreePicBuf(im, true);
            return nullptr;
        }
        nodekit::stamp(re, *inPic);
        nodekit::stamp(im, *inPic);
        auto* output = new CxFFTImageData;
        output->setPicBufReIm(re, im, nullptr);
        output->setMetadata(&outMeta);
        delete data;
        return output;
    });
}
