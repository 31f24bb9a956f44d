#pragma once
#include "NodeKit.h"

#include <CxHistoData.h>

// Collects a series of frames into per-pixel statistics and emits one picture
// per completed series: average, standard deviation, minimum, maximum, the
// number of frames that touched the minimum, or the frame minus the last
// completed average (lifted to the average's level).
//
// Series. A series ends on the frame that brings the frame counter to the
// count to average; the statistic is emitted and the counter starts again.
// Counting to infinite never ends the series: from the second frame on every
// frame emits the statistic so far, until averagingReset() (the quick button
// "Reset") starts a new one. A count below 2 emits every frame at once as a
// copy (all zeros for the deviation, all ones for min touches).
//
// Between the ends of a series nothing is emitted for live frames (a camera
// delivers the next one at once). A frame that is not live (a still picture
// pushed by a program or read from a file, see IxChainData::isLiveData) is
// passed through instead, so that a still picture is shown at all: a copy of
// the frame, zeros for the deviation, ones for min touches, and for the
// subtraction a flat picture at the frame's own level.
//
// Working pictures are heap pictures made in setupStart for what the mode
// needs (every statistic with "calc all modes together", so that the mode can
// change without a stop). They survive a stop/start when counting to infinite
// or calculating all modes, so that accumulation goes on; an unchanged picture
// keeps its counter, a reallocated one restarts the series. Integer sums
// widen 8- and 16-bit samples to 32 bits (sums of squares of 16- and 32-bit
// samples to 64 bits), 32-bit samples keep their width; sums saturate rather
// than wrap. Unsigned 8- and 16-bit frames are summed and squared in a single
// pass that reads each frame once; other types go through the host's sums.
// Sums of interleaved RGBA leave out the alpha.
//
// Standard deviation: unsigned integer and float inputs only (signed inputs
// emit nothing). Integer results are computed in the unsigned width of the
// sum of squares and stored without clamping: only the low bits that fit the
// output sample are kept, which suits the 10x and 100x scalings of small
// spreads. Float inputs compute in single precision.
//
// Min touches: the output is unsigned 16-bit whatever the input, rows aligned
// to 256 bytes; the count wraps after 65535. With "calc all modes together"
// the running minimum is lowered before it is compared, so a frame that sets
// a new minimum adds to the count instead of restarting it at 1.
//
// Subtract from last average: integer results are clamped to 0..full scale
// (signed samples too, the clamped value stored as it is); float results are
// neither rounded nor clamped. Unsupported sample types emit nothing.
//
// Choices where nothing else decides: a stored mode outside 0..5 (from a
// hand-edited chain document) accumulates nothing and emits copies of the
// frame at the end of each series; a frame whose format differs from the one
// the sums were made for yields no output until the chain is restarted; a
// packet that is not an image passes through unchanged.
// processData holds the node's lock for the whole frame, so that a reset or a
// new count from the panel lands between frames.
//
// Settings: "averageCount", "countInfinite", "mode", "allModesTogether",
// "stDevValScaling", "lineAveraing" (spelled so in saved chains). Booleans
// load as true unless their text is exactly "0". Loading reports success only
// when "averageCount" is present and a number, whatever the base class said.
class CxImageAveragingCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Image Averaging")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxImageAveragingCnbl")
public:
    enum ExMode : qint32 {
        ModeAverage = 0,
        ModeStDev = 1,
        ModeMin = 2,
        ModeMax = 3,
        ModeMinTouches = 4,
        ModeSubtractAverage = 5
    };
    Q_ENUM(ExMode)

    enum ExLineAveraging : qint32 { LineAvgNone = 0, LineAvgRows = 1, LineAvgColumns = 2 };
    Q_ENUM(ExLineAveraging)

    // Quick button id of "Reset".
    static constexpr int ResetButtonId = 1;

    Q_INVOKABLE CxImageAveragingCnbl();
    ~CxImageAveragingCnbl() override;

    QString title() const override;
    NODEKIT_PICTURE_NODE(1)
    CxChainable* clone() override;
    QWidget* configurationWidget() override;
    void simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                  bool& hasButtons) override;
    void simpleStateConfigButtonPressed(int id) override;
    bool saveSettings(QDomDocument& doc, QDomElement& element) const override;
    bool loadSettings(const QDomElement& element) override;
    bool hasHelp() const override { return true; }
    QString help(QString& anchor) override;
    void setupStart() override;
    void setupStop() override;
    IxChainData* processData(IxChainData* data) override;
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;

    int countToAverage() const { return nodekit::lockedGet(this, m_countToAverage); }
    void setCountToAverage(int count)
    {
        nodekit::lockedSet(this, m_countToAverage, count);
        emit titleChanged(this);
    }
    bool isCountingToInfinite() const { return nodekit::lockedGet(this, m_countInfinite); }
    void setCountingToInfinite(bool infinite)
    {
        nodekit::lockedSet(this, m_countInfinite, infinite);
        emit titleChanged(this);
    }
    ExMode mode() const { return nodekit::lockedGet(this, m_mode); }
    // Takes effect on the next frame; the panel restarts a running chain so
    // that the pictures of the new mode are made.
    void setMode(ExMode mode);
    bool isCalcAllModesTogether() const { return m_calcAllModes; }
    void setCalcAllModesTogether(bool all) { nodekit::lockedSet(this, m_calcAllModes, all); }
    int stDevValuesScaling() const { return m_stDevScaling; }
    void setStDevValuesScaling(int scaling) { nodekit::lockedSet(this, m_stDevScaling, scaling); }
    ExLineAveraging lineAveraging() const { return nodekit::lockedGet(this, m_lineAveraging); }
    void setLineAveraging(ExLineAveraging lineAveraging) { nodekit::lockedSet(this, m_lineAveraging, lineAveraging); }
    // Starts a new series with the next frame.
    void averagingReset() { nodekit::lockedSet(this, m_frameCounter, 0); }

    int frameCounter() const { return nodekit::lockedGet(this, m_frameCounter); }

private:
    // What the current mode needs accumulated.
    struct SxNeeds
    {
        bool sum, subtractSum, lastAverage, sumSq, min, max, minTouches;
    };
    SxNeeds needs() const;
    bool accumulate(const SxPicBuf& frame);
    // The picture emitted at the end of a series (or of a single frame when
    // frames < 2) into the pool picture out.
    bool computeStatistic(const SxPicBuf& frame, int frames, SxPicBuf& out);
    bool computePassThrough(const SxPicBuf& frame, SxPicBuf& out);
    void freePictures();

    int m_countToAverage = 3;
    bool m_countInfinite = false;
    int m_frameCounter = 0;
    int m_subtractCounter = 0;
    ExMode m_mode = ModeAverage;
    SxPicBuf m_sum;
    SxPicBuf m_subtractSum;
    SxPicBuf m_lastAverage;
    SxPicBuf m_sumSq;
    SxPicBuf m_min;
    SxPicBuf m_max;
    SxPicBuf m_minTouches;
    bool m_calcAllModes = false;
    int m_stDevScaling = 1;
    bool m_lastAverageValid = false;
    CxHistoData m_histogram;
    ExLineAveraging m_lineAveraging = LineAvgNone;
};
