#include "SeqMergeCnbl.h"
#include "SeqMergeWidget.h"

#include <QtCore/QDebug>
#include <QtXml/QDomDocument>

#include <limits>

namespace {

const QString kModeAttribute = QStringLiteral("mergeSeqMode");
const QString kCountAttribute = QStringLiteral("mergeSeqCount");
const QString kPassCompleteAttribute = QStringLiteral("mergeSeqPassComplete");

// Only the packet checks apply: the node answers nothing while it collects,
// and an output is a copy of its working picture.
constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingDropped, nodekit::PoolFixed};

quint64 placesMask(int places)
{
    return places >= 64 ? ~quint64(0) : (quint64(1) << places) - 1;
}

constexpr quint64 kMaxExtent = std::numeric_limits<quint32>::max();

} // namespace

CxSeqMergeCnbl::CxSeqMergeCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor))
{
}

CxSeqMergeCnbl::~CxSeqMergeCnbl()
{
    freeWorkingPic();
}

QString CxSeqMergeCnbl::title() const
{
    return tr("Merge %1 Images").arg(m_count);
}

CxChainable* CxSeqMergeCnbl::clone()
{
    auto* copy = new CxSeqMergeCnbl;
    copy->m_mode = m_mode;
    copy->m_count = m_count;
    copy->m_passCompleteOnly = m_passCompleteOnly;
    return copy;
}

QWidget* CxSeqMergeCnbl::configurationWidget()
{
    return new CxSeqMergeWidget(this);
}

void CxSeqMergeCnbl::simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                              bool& hasButtons)
{
    // Rows take any count, too many to offer as buttons.
    if (m_mode == ModeTiles) {
        buttons.append(CxSimpleStateConfigButton(QStringLiteral("2"), 2, true, m_count == 2));
        buttons.append(CxSimpleStateConfigButton(QStringLiteral("4"), 4, true, m_count == 4));
    }
    hasButtons = true;
}

void CxSeqMergeCnbl::simpleStateConfigButtonPressed(int id)
{
    setCount(ModeTiles, id, true);
}

bool CxSeqMergeCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kModeAttribute, int(m_mode));
    element.setAttribute(kCountAttribute, m_count);
    element.setAttribute(kPassCompleteAttribute, qlonglong(m_passCompleteOnly ? 1 : 0));
    return result;
}

bool CxSeqMergeCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    m_mode = nodekit::attribute(element, kModeAttribute, m_mode);
    // Not range-checked: the document's value is kept so that saving writes
    // it back; counts the node cannot merge with pass frames through.
    m_count = nodekit::attribute(element, kCountAttribute, m_count);
    m_passCompleteOnly =
        nodekit::attribute(element, kPassCompleteAttribute, m_passCompleteOnly, nodekit::On::AboveZero);
    return result;
}

void CxSeqMergeCnbl::setCount(ExMode mode, int count, bool restart)
{
    nodekit::setWithRestart(this, restart, [this, mode, count] {
        m_mode = mode;
        if (count > 0)
            m_count = count;
    });
    emit titleChanged(this);
}

void CxSeqMergeCnbl::setPassCompleteOnly(bool passCompleteOnly, bool restart)
{
    nodekit::setWithRestart(this, restart, [this, passCompleteOnly] { m_passCompleteOnly = passCompleteOnly; });
}

bool CxSeqMergeCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                          const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        if (!usableCount())
            return true;
        if (m_mode == ModeTiles && (m_count == 2 || m_count == 4)) {
            const quint64 width = quint64(in.width) * 2;
            const quint64 height = quint64(in.height) * (m_count == 4 ? 2 : 1);
            // Rows start on 256-byte boundaries.
            const quint64 pitch = (width * in.channels * in.bytesPerSample() + 255) & ~quint64(255);
            if (width <= kMaxExtent && height <= kMaxExtent && pitch <= kMaxExtent) {
                out.width = quint32(width);
                out.height = quint32(height);
                out.linePitch = quint32(pitch);
            }
        } else if (m_mode == ModeRows) {
            const quint64 height = quint64(in.height) * quint64(m_count);
            if (height <= kMaxExtent)
                out.height = quint32(height);
        }
        return true;
    });
}

void CxSeqMergeCnbl::setupStart()
{
    nodekit::guarded(this, "setupStart", [&] {
        CxImageProvider::setupStart();
        freeWorkingPic();
        SxPicBufInfo in, out;
        if (!usableCount() || !currentInputImageInfo(in, nullptr) || !queryOutputImageInfo(in, out, nullptr, nullptr))
            return;
        if (!CxPicBufAPI::AllocPicBufFromHeap(m_working, out, false, 0)) {
            qCritical() << title() << "could not allocate its working picture of" << nodekit::describe(out);
            return;
        }
        CxPicBufAPI::FillChannelsValue(m_working, 1);

        int cols = 0, rows = 0;
        if (m_mode == ModeTiles && (m_count == 2 || m_count == 4)) {
            cols = 2;
            rows = m_count / 2;
        } else if (m_mode == ModeRows) {
            cols = 1;
            rows = m_count;
        }
        if (!cols || !in.width || !in.height || quint64(in.width) * cols != out.width
            || quint64(in.height) * rows != out.height)
            return;
        SxPicBufInfo place = out;
        place.width = in.width;
        place.height = in.height;
        place.linePitch = 0;
        if (!CxPicBufAPI::AllocPicBufFromHeap(m_blankPlace, place, false, 0))
            return;  // the picture is then painted whole after each output
        CxPicBufAPI::FillChannelsValue(m_blankPlace, 1);
        m_tileWidth = in.width;
        m_tileHeight = in.height;
        m_tileCols = cols;
        m_tileRows = rows;
    });
}

void CxSeqMergeCnbl::setupStop()
{
    CxImageProvider::setupStop();
    freeWorkingPic();
}

void CxSeqMergeCnbl::freeWorkingPic()
{
    CxPicBufAPI::FreePicBuf(m_working, true);
    CxPicBufAPI::FreePicBuf(m_blankPlace, true);
    m_lastIndex = -1;
    m_receivedMask = 0;
    m_tileWidth = m_tileHeight = 0;
    m_tileCols = m_tileRows = 0;
    m_staleMask = 0;
}

void CxSeqMergeCnbl::paintStalePlaces()
{
    for (int j = 0; m_staleMask; ++j) {
        if (!(m_staleMask & (quint64(1) << j)))
            continue;
        m_staleMask &= ~(quint64(1) << j);
        CxPicBufAPI::CopyRect(m_working, quint32(j % m_tileCols) * m_tileWidth, quint32(j / m_tileCols) * m_tileHeight,
                              m_blankPlace, 0, 0, m_tileWidth, m_tileHeight);
    }
}

void CxSeqMergeCnbl::resetWorkingPic()
{
    m_lastIndex = -1;
    m_receivedMask = 0;
    if (m_tileCols)
        m_staleMask = placesMask(m_tileCols * m_tileRows);
    else
        CxPicBufAPI::FillChannelsValue(m_working, 1);
}

void CxSeqMergeCnbl::placeFrame(const SxPicBuf& frame, int index)
{
    quint64 col = 0, row = 0;
    if (m_mode == ModeTiles && m_count <= 4) {
        col = quint64(index % 2);
        row = quint64(index / 2);
    } else if (m_mode == ModeRows) {
        row = quint64(index);
    } else {
        return;
    }
    const quint64 x = col * frame.width, y = row * frame.height;
    if (x < m_working.width && y < m_working.height) {
        const quint32 w = quint32(qMin<quint64>(frame.width, m_working.width - x));
        const quint32 h = quint32(qMin<quint64>(frame.height, m_working.height - y));
        // A frame that fills one place of the picture exactly leaves nothing
        // of the earlier picture there; anything else may leave parts of
        // several places, so those are brought up to date first.
        const bool wholePlace = m_tileCols && w == m_tileWidth && h == m_tileHeight && frame.width == w
            && frame.height == h && x % m_tileWidth == 0 && y % m_tileHeight == 0;
        if (!wholePlace)
            paintStalePlaces();
        if (CxPicBufAPI::CopyRect(m_working, quint32(x), quint32(y), frame, 0, 0, w, h) && wholePlace)
            m_staleMask &= ~(quint64(1) << ((y / m_tileHeight) * quint64(m_tileCols) + x / m_tileWidth));
    }

    if (m_lastIndex == -1)
        nodekit::stamp(m_working, frame);
}

CxImageData* CxSeqMergeCnbl::createOutputDataAndResetWorkingPic(CxImageData* input)
{
    SxPicBuf outPic;
    if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, outPic, m_working, false))
        return nullptr;
    paintStalePlaces();
    if (!CxPicBufAPI::CopyPicBuf(outPic, m_working, true)) {
        CxPicBufAPI::FreePicBuf(outPic, false);
        return nullptr;
    }

    SxPicBufInfo outInfo;
    CxImageMetadata outMeta;
    queryOutputImageInfo(*input->picBuf(), outInfo, input->metadata(), &outMeta);
    CxImageData* output = nodekit::wrap(outPic, outMeta);
    resetWorkingPic();
    return output;
}

IxChainData* CxSeqMergeCnbl::processData(IxChainData* data)
{
    return nodekit::guarded(this, "processData", [&]() -> IxChainData* {
        IxChainData* answer = nullptr;
        CxImageData* input = nodekit::pictureOf(this, data, kFrame, answer);
        if (!input)
            return answer;
        if (!m_working.data || !usableCount())
            return data;
        const SxPicBuf* frame = input->picBuf();
        if (!frame->data)
            return nullptr;

        const int count = m_count;
        const int index = frame->frameNumber % count;

        CxImageData* output = nullptr;
        if (m_lastIndex >= index && !m_passCompleteOnly)
            output = createOutputDataAndResetWorkingPic(input);

        if (index >= 0) {
            placeFrame(*frame, index);
            m_receivedMask |= quint64(1) << index;
        }
        m_lastIndex = index;

        if (index != count - 1 || (m_passCompleteOnly && m_receivedMask != placesMask(count)))
            return output;
        if (!output)
            output = createOutputDataAndResetWorkingPic(input);
        delete data;
        return output;
    });
}
