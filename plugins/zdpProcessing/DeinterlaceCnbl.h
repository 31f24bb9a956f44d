#pragma once
#include "NodeKit.h"

// Keeps or reorders the rows of a picture by the parity of their index: it can
// keep every other row, or stack the two fields of an interlaced frame one
// above the other. Whole rows are moved as raw bytes, so every sample type,
// channel count, storage format and mosaic passes through unchanged.
//
// Row numbering: the user texts count rows from 1, so 0-based indices 0, 2,
// 4, ... are the "odd" rows. The names below follow the user texts.
//
// A transform outside 0..3 can only come from a chain document (the loader
// accepts any integer and the value is kept as stored so that saving writes
// it back unchanged). Such a value keeps the input height and copies every
// row in order, i.e. it acts as a pass-through copy.
//
// Rows are copied with the shorter of the two line pitches. A picture need not
// hold padding after its last row (a picture cut out of a larger one ends with
// its last pixel), so the last row of either picture is copied only up to its
// packed length; no byte outside either picture is read or written, whatever
// the heights, pitches or the stored transform.
class CxDeinterlaceCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Deinterlace")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxDeinterlaceCnbl")
public:
    // Stored in chain documents as a decimal integer. The fixed underlying
    // type keeps an out-of-range value loaded from a document well defined.
    enum ExTransformType : int {
        TransformOddRows = 0,     // rows 0, 2, 4, ...
        TransformEvenRows = 1,    // rows 1, 3, 5, ...
        TransformOddFirst = 2,    // 0, 2, 4, ..., then 1, 3, 5, ...
        TransformEvenFirst = 3    // 1, 3, 5, ..., then 0, 2, 4, ...
    };
    Q_ENUM(ExTransformType)

    Q_INVOKABLE CxDeinterlaceCnbl();
    ~CxDeinterlaceCnbl() override;

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
    IxChainData* processData(IxChainData* data) override;
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;

    ExTransformType transform() const { return m_transform; }
    // With restart, a running chain is stopped around the change so that the
    // output height is negotiated again before the next frame.
    void setTransform(ExTransformType transform, bool restart);

    // The row kernel: fills out.height rows of out from in by the transform.
    static void deinterlaceRows(const SxPicBuf& in, SxPicBuf& out, ExTransformType transform);

private:
    ExTransformType m_transform = TransformOddRows;
};
