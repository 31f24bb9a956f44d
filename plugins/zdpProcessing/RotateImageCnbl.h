#pragma once
#include "NodeKit.h"

// Turns every picture by a quarter turn, clockwise or counter-clockwise. The
// output has width and height swapped and packed rows; input pixel (x, r) of a
// W x H picture lands at output row x, column H - 1 - r when turning
// clockwise, and at output row W - 1 - x, column r otherwise. Samples are
// moved as they are, so every channel count works and colour stays intact.
//
// A 2x2 Bayer phase (filter arrays 1..4) is renamed after the turn so that a
// demosaic further down sees the colours where they now are; the table holds
// for even sizes, which is what sensors deliver. The storage format is not
// looked at: a picture marked as not raw (storage format 3) turns its pixels
// like any other and has its Bayer value renamed too, so the note of where it
// came from stays true of the turned picture. Other mosaic values are kept.
//
// Sample types with a kernel: signed and unsigned 8-, 16- and 32-bit integers
// and 32-bit float, except that a signed 32-bit picture has no
// counter-clockwise kernel. Such a picture, any other sample type, a picture
// without channels and one whose rows overlap (line pitch below the row
// length) yield no output, silently: the format itself was accepted when the
// chain started, so the node cannot refuse it with a message there, and the
// gap is kept as users of saved chains know it.
//
// Input rows are read at the picture's line pitch, so padded pictures (a cut
// out of a larger frame) turn as well as packed ones.
//
// Speed: the turn is done tile by tile, so that the rows read and the rows
// written both stay in cache; the rows of tiles are shared among the
// kit's scheduler threads. Each output pixel is written by exactly one thread. Small pictures
// are turned on the calling thread alone.
class CxRotateImageCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Rotate")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.cxRotateImageCnbl")
public:
    // Quick button ids.
    enum ExButtonId { ButtonCounterClockwise = 0, ButtonClockwise = 1 };

    Q_INVOKABLE CxRotateImageCnbl();
    ~CxRotateImageCnbl() override;

    QString title() const override;
    NODEKIT_PICTURE_NODE(1)
    CxChainable* clone() override;
    QWidget* configurationWidget() override;
    void simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                  bool& hasButtons) override;
    void simpleStateConfigButtonPressed(int id) override;
    bool saveSettings(QDomDocument& doc, QDomElement& element) const override;
    bool loadSettings(const QDomElement& element) override;
    IxChainData* processData(IxChainData* data) override;
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;

    bool clockwise() const { return m_clockwise; }
    void setRotation(bool clockwise, bool restart);

    // The filter array a picture of that pattern has after the turn.
    static ExColorFilterArray rotatedColorFilterArray(ExColorFilterArray cfa, bool clockwise);

    // Turns in into out, whose format must be the one queryOutputImageInfo
    // gives for in. False, with out untouched, when no kernel fits.
    static bool rotatePicture(const SxPicBuf& in, SxPicBuf& out, bool clockwise);

private:
    bool m_clockwise = true;
};

// The typed kernels behind rotatePicture, for the sample types listed above.
template <class T>
void rotateImageClock(const SxPicBuf& in, SxPicBuf& out);
template <class T>
void rotateImageCounterClock(const SxPicBuf& in, SxPicBuf& out);
