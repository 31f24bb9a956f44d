#include "ImageAveragingCnbl.h"
#include "ImageAveragingKernels.h"
#include "ImageAveragingWidget.h"

#include <CxPicBufMeas.h>

#include <QtCore/QDebug>
#include <QtCore/QRect>
#include <QtCore/QThread>
#include <QtXml/QDomDocument>

#include <cstring>

namespace {

const QString kAverageCountAttr = QStringLiteral("averageCount");
const QString kCountInfiniteAttr = QStringLiteral("countInfinite");
const QString kModeAttr = QStringLiteral("mode");
const QString kAllModesAttr = QStringLiteral("allModesTogether");
const QString kStDevScalingAttr = QStringLiteral("stDevValScaling");
const QString kLineAveragingAttr = QStringLiteral("lineAveraing");

// Min, max, mean and deviation: the subtraction only reads the mean.
const CxHistoData::ExHistoDataFlags kHistogramFlags =
    CxHistoData::ExHistoDataFlags(CxHistoData::HDF_MinMax | CxHistoData::HDF_Mean | CxHistoData::HDF_StdDev);

// Between the ends of a series the node answers nothing, and a pool picture
// is taken only for the frames that make one.
constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingDropped, nodekit::PoolFixed,
                                     nodekit::OutputSomeFrames};

// Log lines keep the numbers the support team greps for, whatever this file
// looks like now.
void logAllocationFailure(int line, const char* what)
{
    qCritical().noquote() << QThread::currentThreadId() << "plugins/zdpProcessing/ImageAveragingCnbl"
                          << "L" << line << ":" << ""
                          << QStringLiteral("CxImageAveragingCnbl::setupStart(): %1").arg(QLatin1String(what));
}

bool sameLayout(const SxPicBuf& pic, const SxPicBufInfo& f)
{
    return pic.width == f.width && pic.height == f.height && pic.channels == f.channels
           && pic.bitsPerSample == f.bitsPerSample && pic.dataType == f.dataType
           && pic.storageFormat == f.storageFormat && pic.isColor == f.isColor;
}

// Makes pic fit format (a heap picture) when needed; frees it otherwise.
// Returns true when the picture was (re)allocated or failed to be, so that its
// counter restarts.
bool preparePicture(SxPicBuf& pic, bool needed, const SxPicBufInfo& format, int line, const char* what)
{
    if (!needed) {
        CxPicBufAPI::FreePicBuf(pic, true);
        return false;
    }
    if (pic.data && sameLayout(pic, format))
        return false;
    CxPicBufAPI::FreePicBuf(pic, true);
    if (!CxPicBufAPI::AllocPicBufFromHeap(pic, format, false, 0))
        logAllocationFailure(line, what);
    return true;
}

SxPicBufInfo withType(SxPicBufInfo f, ExImageDataType type)
{
    if (f.dataType != type) {
        f.dataType = type;
        f.bitsPerSample = bytesPerSampleOf(type) * 8;
    }
    return f;
}

// Channels the histogram must hold records for: the alpha of an 8- or 16-bit
// interleaved colour picture is not measured.
quint32 colourChannels(const SxPicBufInfo& f)
{
    const quint32 bpp = f.bytesPerPixel();
    if (f.channels == 4 && f.isColor && f.storageFormat == DSF_PACKED && (bpp == 4 || bpp == 8))
        return 3;
    return f.channels;
}

} // namespace

CxImageAveragingCnbl::CxImageAveragingCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor))
{
}

CxImageAveragingCnbl::~CxImageAveragingCnbl()
{
    freePictures();
}

void CxImageAveragingCnbl::freePictures()
{
    for (SxPicBuf* p : {&m_sum, &m_subtractSum, &m_lastAverage, &m_sumSq, &m_min, &m_max, &m_minTouches})
        CxPicBufAPI::FreePicBuf(*p, true);
}

QString CxImageAveragingCnbl::title() const
{
    QMutexLocker lock(nodeMutex());
    QString word;
    switch (m_mode) {
    case ModeAverage: word = tr("Averaging"); break;
    case ModeStDev: word = tr("StDev"); break;
    case ModeMin: word = tr("Min"); break;
    case ModeMax: word = tr("Max"); break;
    case ModeMinTouches: word = tr("Min touches"); break;
    case ModeSubtractAverage: word = tr("Subtract from avg"); break;
    }
    const int counted = m_mode == ModeSubtractAverage ? m_subtractCounter : m_frameCounter;
    const QString of = m_countInfinite ? QString(QChar(0x221E)) : QString::number(m_countToAverage);
    return word + QStringLiteral(" (%1/%2)").arg(counted).arg(of);
}

CxChainable* CxImageAveragingCnbl::clone()
{
    auto* copy = new CxImageAveragingCnbl;
    QMutexLocker lock(nodeMutex());
    copy->m_countToAverage = m_countToAverage;
    copy->m_countInfinite = m_countInfinite;
    copy->m_mode = m_mode;
    copy->m_calcAllModes = m_calcAllModes;
    copy->m_stDevScaling = m_stDevScaling;
    copy->m_lineAveraging = m_lineAveraging;
    return copy;
}

QWidget* CxImageAveragingCnbl::configurationWidget()
{
    return new CxAveratingConfigurationWgt(this);
}

void CxImageAveragingCnbl::simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                                    bool& hasButtons)
{
    if (isCountingToInfinite())
        buttons.append(CxSimpleStateConfigButton(QStringLiteral("Reset"), ResetButtonId, false, false));
    hasButtons = false;
}

void CxImageAveragingCnbl::simpleStateConfigButtonPressed(int id)
{
    if (id == ResetButtonId)
        averagingReset();
}

bool CxImageAveragingCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    QMutexLocker lock(nodeMutex());
    element.setAttribute(kAverageCountAttr, qlonglong(m_countToAverage));
    element.setAttribute(kCountInfiniteAttr, qlonglong(m_countInfinite));
    element.setAttribute(kModeAttr, qlonglong(m_mode));
    element.setAttribute(kAllModesAttr, qlonglong(m_calcAllModes));
    element.setAttribute(kStDevScalingAttr, qlonglong(m_stDevScaling));
    element.setAttribute(kLineAveragingAttr, qlonglong(m_lineAveraging));
    return result;
}

bool CxImageAveragingCnbl::loadSettings(const QDomElement& element)
{
    // The base's answer is deliberately not part of the result: a chain
    // document counts as loaded exactly when it holds a usable count.
    CxChainable::loadSettings(element);
    using nodekit::attribute;
    const auto on = nodekit::On::UnlessTextIsZero;
    QMutexLocker lock(nodeMutex());
    bool countOk = false;
    m_countToAverage = attribute(element, kAverageCountAttr, m_countToAverage, &countOk);
    m_countInfinite = attribute(element, kCountInfiniteAttr, m_countInfinite, on);
    m_mode = attribute(element, kModeAttr, m_mode);
    m_calcAllModes = attribute(element, kAllModesAttr, m_calcAllModes, on);
    m_stDevScaling = attribute(element, kStDevScalingAttr, m_stDevScaling);
    m_lineAveraging = attribute(element, kLineAveragingAttr, m_lineAveraging);
    return element.hasAttribute(kAverageCountAttr) && countOk;
}

QString CxImageAveragingCnbl::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return tr("This object averages (or other stats) the user defined amounf of images into one output "
              "image.When all the images are averaged then the output is sent to the rest of the "
              "processing chain and next serie of the input images is averaged. <br>Warning:<ul><li> "
              "The output framerate is decreased by the number of averaged input images.</li><li> The "
              "static images are not averaged.</li></ul>");
}

void CxImageAveragingCnbl::setMode(ExMode mode)
{
    nodekit::locked(this, [&] {
        m_mode = mode;
        // Without the other statistics running along, the last average
        // belongs to an old run of the subtraction.
        if (!m_calcAllModes)
            m_lastAverageValid = false;
    });
    emit titleChanged(this);
}

bool CxImageAveragingCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                                const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        if (m_mode == ModeMinTouches) {
            out.dataType = IDT_UINT16;
            out.bitsPerSample = 16;
            out.linePitch = quint32((quint64(in.width) * in.channels * 2 + 255) & ~quint64(255));
        }
        return true;
    });
}

CxImageAveragingCnbl::SxNeeds CxImageAveragingCnbl::needs() const
{
    const bool all = m_calcAllModes;
    const ExMode m = m_mode;
    SxNeeds n;
    n.sum = all || m == ModeAverage || m == ModeStDev;
    n.subtractSum = all || m == ModeSubtractAverage;
    n.lastAverage = n.subtractSum;
    n.sumSq = all || m == ModeStDev;
    n.min = all || m == ModeMin || m == ModeMinTouches;
    n.max = all || m == ModeMax;
    n.minTouches = all || m == ModeMinTouches;
    return n;
}

void CxImageAveragingCnbl::setupStart()
{
    nodekit::guarded(this, "setupStart", [&] {
        QMutexLocker lock(nodeMutex());
        SxPicBufInfo in;
        if (!currentInputImageInfo(in, nullptr))
            return;
        const SxNeeds need = needs();

        ExImageDataType sumType = in.dataType;
        if (in.dataType == IDT_UINT8 || in.dataType == IDT_UINT16)
            sumType = IDT_UINT32;
        else if (in.dataType == IDT_INT8 || in.dataType == IDT_INT16)
            sumType = IDT_INT32;
        ExImageDataType sqType = in.dataType;
        if (in.dataType == IDT_INT8 || in.dataType == IDT_UINT8)
            sqType = IDT_UINT32;
        else if (in.dataType >= IDT_INT16 && in.dataType <= IDT_UINT32)
            sqType = IDT_UINT64;

        SxPicBufInfo sumFormat = withType(in, sumType);
        sumFormat.linePitch = 0;
        if (avgk::hasMarkedAlpha(in))
            sumFormat.channels = 3;
        SxPicBufInfo sqFormat = withType(sumFormat, sqType);
        SxPicBufInfo touchesFormat = withType(in, IDT_UINT16);
        touchesFormat.linePitch = 0;

        if (preparePicture(m_sum, need.sum, sumFormat, 495, "Sum pic allocation failed."))
            m_frameCounter = 0;
        if (preparePicture(m_subtractSum, need.subtractSum, sumFormat, 510, "SumSubtract pic allocation failed."))
            m_subtractCounter = 0;
        if (preparePicture(m_lastAverage, need.lastAverage, in, 519, "LastAvg pic allocation failed."))
            m_lastAverageValid = false;
        if (preparePicture(m_sumSq, need.sumSq, sqFormat, 538, "SumSq pic allocation failed."))
            m_frameCounter = 0;
        if (preparePicture(m_min, need.min, in, 553, "Min pic allocation failed."))
            m_frameCounter = 0;
        if (preparePicture(m_max, need.max, in, 568, "Max pic allocation failed."))
            m_frameCounter = 0;
        if (preparePicture(m_minTouches, need.minTouches, touchesFormat, 583, "MinTouches pic allocation failed."))
            m_frameCounter = 0;
    });
}

void CxImageAveragingCnbl::setupStop()
{
    QMutexLocker lock(nodeMutex());
    if (m_countInfinite || m_calcAllModes)
        return;
    freePictures();
}

namespace {

// The first frame of a series is the sum: an integer frame is written into it
// at once (divided by 1, exact for every integer sample of a sum as wide),
// rather than added to zeros in a second pass. Float sums keep the addition,
// which turns a negative zero into a positive one.
bool startSum(SxPicBuf& sum, const SxPicBuf& frame)
{
    if (frame.dataType != IDT_FLOAT && frame.dataType != IDT_DOUBLE && CxPicBufAPI::DivideByValue(frame, 1, sum))
        return true;
    if (sum.data)
        std::memset(sum.data, 0, size_t(sum.dataSize()));
    return CxPicBufAPI::Add(sum, frame);
}

} // namespace

bool CxImageAveragingCnbl::accumulate(const SxPicBuf& frame)
{
    const SxNeeds need = needs();
    const bool first = m_frameCounter == 0;
    // The order matters: with every statistic on, Min has lowered the
    // minimum before MinTouches compares the frame with it.
    if (need.sum && first && !need.sumSq && !startSum(m_sum, frame))
        return false;
    if (need.sumSq && first) {
        for (SxPicBuf* p : {&m_sum, &m_sumSq})
            if (p->data)
                std::memset(p->data, 0, size_t(p->dataSize()));
    }
    const bool fused = need.sum && need.sumSq && AddSumAndSquares(m_sum, m_sumSq, frame);
    if (need.sum && !fused && !(first && !need.sumSq) && !CxPicBufAPI::Add(m_sum, frame))
        return false;
    if (need.subtractSum) {
        if (!(m_subtractCounter == 0 ? startSum(m_subtractSum, frame) : CxPicBufAPI::Add(m_subtractSum, frame)))
            return false;
        ++m_subtractCounter;
    }
    if (need.sumSq && !fused && !CxPicBufAPI::AddSquares(m_sumSq, frame))
        return false;
    // In min-touches mode alone the touch count is the only one to move the
    // minimum, so that a new minimum restarts its count at 1.
    if (m_calcAllModes || m_mode == ModeMin) {
        if (!(first ? CxPicBufAPI::CopyPicBuf(m_min, frame, true) : CxPicBufAPI::Min(m_min, frame)))
            return false;
    }
    if (need.max) {
        if (!(first ? CxPicBufAPI::CopyPicBuf(m_max, frame, true) : CxPicBufAPI::Max(m_max, frame)))
            return false;
    }
    if (need.minTouches) {
        if (first) {
            if (!m_minTouches.data || !CxPicBufAPI::CopyPicBuf(m_min, frame, true)
                || !CxPicBufAPI::FillChannelsValue(m_minTouches, 1))
                return false;
        } else if (!MinTouches(m_min, m_minTouches, frame)) {
            return false;
        }
    }
    return true;
}

bool CxImageAveragingCnbl::computeStatistic(const SxPicBuf& frame, int frames, SxPicBuf& out)
{
    if (frames < 2) {
        if (m_mode == ModeStDev)
            return CxPicBufAPI::FillChannelsValue(out, 0);
        if (m_mode == ModeMinTouches)
            return CxPicBufAPI::FillChannelsValue(out, 1);
        return CxPicBufAPI::CopyPicBuf(out, frame, false);
    }
    switch (m_mode) {
    case ModeAverage: return CxPicBufAPI::DivideByValue(m_sum, frames, out);
    case ModeStDev: return StDevFromSums(m_sum, m_sumSq, frames, out, m_stDevScaling);
    case ModeMin: return CxPicBufAPI::CopyPicBuf(out, m_min, false);
    case ModeMax: return CxPicBufAPI::CopyPicBuf(out, m_max, false);
    case ModeMinTouches: return CxPicBufAPI::CopyPicBuf(out, m_minTouches, false);
    case ModeSubtractAverage: return false;
    }
    return CxPicBufAPI::CopyPicBuf(out, frame, false);
}

bool CxImageAveragingCnbl::computePassThrough(const SxPicBuf& frame, SxPicBuf& out)
{
    switch (m_mode) {
    case ModeStDev: return CxPicBufAPI::FillChannelsValue(out, 0);
    case ModeMinTouches: return CxPicBufAPI::FillChannelsValue(out, 1);
    case ModeSubtractAverage:
        if (!CxPicBufMeas::measureHistogram(m_histogram, frame, QRect(0, 0, -1, -1), kHistogramFlags, nullptr))
            return false;
        return SetAsSubtractingGreyImage(out, m_histogram);
    default: return CxPicBufAPI::CopyPicBuf(out, frame, false);
    }
}

IxChainData* CxImageAveragingCnbl::processData(IxChainData* data)
{
    return nodekit::processFrame(this, data, kFrame, [this](nodekit::Frame& f) {
        const SxPicBuf& in = f.in;
        QMutexLocker lock(nodeMutex());
        bool haveOut = false;
        if (m_countToAverage < 2 && !m_countInfinite) {
            m_frameCounter = 1;
            if (!f.take())
                return nodekit::Drop;
            const bool ok = computeStatistic(in, 1, f.out);
            m_frameCounter = 0;
            if (!ok)
                return nodekit::Drop;
            haveOut = true;
        } else {
            if (!accumulate(in))
                return nodekit::Drop;
            ++m_frameCounter;
            emit titleChanged(this);

            if (m_mode == ModeSubtractAverage && m_lastAverageValid) {
                if (!f.take() || !CxPicBufAPI::CopyPicBuf(f.out, in, false))
                    return nodekit::Drop;
                if (m_histogram.channels() >= int(colourChannels(f.out))
                    && !SubtractWithOffset(m_lastAverage, f.out, m_histogram))
                    return nodekit::Drop;
                haveOut = true;
            }
            if (m_mode == ModeSubtractAverage && m_subtractCounter >= m_countToAverage
                && CxPicBufAPI::DivideByValue(m_subtractSum, m_subtractCounter, m_lastAverage)) {
                m_lastAverageValid = true;
                CxPicBufMeas::measureHistogram(m_histogram, m_lastAverage, QRect(0, 0, -1, -1), kHistogramFlags,
                                               nullptr);
                m_subtractCounter = 0;
            }

            const bool seriesOpen = m_frameCounter < m_countToAverage;
            if (seriesOpen && !(m_countInfinite && m_frameCounter >= 2)) {
                if (!haveOut) {
                    if (f.packet.isLiveData())
                        return nodekit::Drop;
                    if (!f.take() || !computePassThrough(in, f.out))
                        return nodekit::Drop;
                    haveOut = true;
                }
            } else if (m_mode == ModeSubtractAverage) {
                if (!m_countInfinite)
                    m_frameCounter = 0;
            } else {
                const int frames = m_frameCounter;
                if (!m_countInfinite)
                    m_frameCounter = 0;
                if (!f.take() || !computeStatistic(in, frames, f.out))
                    return nodekit::Drop;
                haveOut = true;
            }
        }
        if (!haveOut)
            return nodekit::Drop;
        LineAveraging(f.out, m_lineAveraging);
        return nodekit::Go;
    });
}
