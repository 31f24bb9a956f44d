#pragma once
#include "NodeKit.h"

#include <QtCore/QRect>

// Reduces every hyperpixel (the repeating cell of a mosaic) of a one-channel
// raw picture to its minimum, maximum or average, or stretches each
// hyperpixel over the full sample range. The arithmetic is the host's
// (CxPicBufAPI::Filter*OnMosaicPicBuf); this node picks the cell geometry, the
// output format and tells the user what went wrong.
//
// Hyperpixels:
//  * 2x2 mosaics (filter arrays 1..6): 2 x 2 samples over the whole picture.
//  * Hyperspectral mosaics: the first filter zone's pattern (bands across x
//    bands down) inside the zone's rectangle, or the whole picture when the
//    rectangle is inverted. The rectangle is cut to the picture, so a
//    description made for a larger sensor still gives usable sizes. A
//    picture counts as hyperspectral when either its format or its
//    description says so; only simple mosaics (one zone of single-pixel
//    cells at the origin) are processed, and an unusable description
//    negotiates 1 x 1 cells before it is refused frame by frame.
//
// Output: one channel of the input's sample type and bits, rows padded to
// 256 bytes.
//  * Minimum, Maximum, Average with interpolation: the input's size, each
//    sample the statistic of the hyperpixel starting there (the last columns
//    and rows repeat the last full result).
//  * Without interpolation: one sample per whole hyperpixel.
//  * Normalize (interpolation does not apply): the input's size, mosaic and
//    camera description kept.
//  The other results are plain pictures (no mosaic, empty camera description).
//
// Messages (set only while none is shown, cleared by the next good frame):
// "The input image is not in RAW format.", "Only the simple mosaic HSI images
// are supported.", "The processing failed." (the host refused the frame: a
// sample type other than 8-, 16-, 32-bit integer or float, rows that do not
// start on a sample boundary, a picture smaller than one hyperpixel, or a
// stored filter value outside 0..3). The input then passes on unchanged.
//
// Settings: "statFilter" (0..3, not range-checked on load) and
// "interpolation" (0/1, any non-zero number is on). Text that is not a number
// loads as 0 and makes loadSettings answer false; a missing attribute keeps
// the current value.
//
// The setting accessors take the node's recursive lock, so the GUI thread may
// read and write them while frames are processed.
class CxMosaicStatFilterChnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Mosaic Filter")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxMosaicStatFilterChnbl")
public:
    // Stored in chain documents as a decimal integer; the fixed underlying
    // type keeps an out-of-range loaded value well defined.
    enum ExMosaicFilter : qint32 { Minimum = 0, Maximum = 1, Average = 2, Normalize = 3 };
    Q_ENUM(ExMosaicFilter)

    Q_INVOKABLE CxMosaicStatFilterChnbl();
    ~CxMosaicStatFilterChnbl() override;

    QString title() const override;
    NODEKIT_PICTURE_NODE(1)
    CxChainable* clone() override;
    QWidget* configurationWidget() override;
    bool saveSettings(QDomDocument& doc, QDomElement& element) const override;
    bool loadSettings(const QDomElement& element) override;
    bool hasHelp() const override { return true; }
    QString help(QString& anchor) override;
    IxChainData* processData(IxChainData* data) override;
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;

    // The display name of a filter; empty for a value outside 0..3.
    static QString statString(ExMosaicFilter filter);

    ExMosaicFilter statFilter() const;
    void setStatFilter(ExMosaicFilter filter);
    bool interpolation() const;
    void setInterpolation(bool on);

private:
    ExMosaicFilter m_statFilter = Average;
    bool m_interpolation = true;
};
