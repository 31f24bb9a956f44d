#pragma once
#include "NodeKit.h"

// Collects a run of consecutive frames into one picture: two tiles side by
// side, 2 x 2 tiles, or count frames stacked in rows. A frame's place is its
// frame number modulo count, so a sequence keeps its order when frames are
// dropped. The node answers nothing while it collects; an output carries the
// frame data (number, attachments, exposure) of the first frame stored in it.
//
// With "complete sequences only" a picture leaves only when the last place
// arrives and every place was filled since the previous output; otherwise a
// picture leaves at the last place, and early when a frame's place is not
// after the previous frame's (a new sequence began). Places not filled show
// the value 1 in every sample.
//
// Counts the node cannot merge with, which only a chain document can hold:
// a count below 1 or above 64 passes every frame through unchanged, with the
// input format as output format (and the document's value kept, so saving
// writes it back). Tiles with a count other than 2 or 4 keep the input size,
// and frames whose place lies outside the picture are not copied. A frame
// number below 0 (a wrapped counter) has no place: it is counted in the
// sequence but not copied.
//
// Frames of another size than the chain negotiated are copied into their
// place as far as they fit; frames of another sample type are not copied.
//
// Cost: a frame costs one copy of its rectangle; an output costs one copy of
// the picture. Instead of painting the whole picture with 1 after each
// output, the node keeps one place painted with 1 and, when the next picture
// leaves, copies it over the places that were not refilled, which gives the
// same pixels.
class CxSeqMergeCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Merge Sequence")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.SeqMergeCnbl")
public:
    // Stored in chain documents as a decimal integer. The fixed underlying
    // type keeps an unknown value loaded from a document well defined; such
    // a mode keeps the input size and places no frame.
    enum ExMode : qint32 {
        ModeTiles = 0,  // count 2: two tiles side by side; count 4: 2 x 2 tiles
        ModeRows = 1    // count pictures one below the other
    };
    Q_ENUM(ExMode)

    // Most places one picture can hold.
    static constexpr int MaxCount = 64;

    Q_INVOKABLE CxSeqMergeCnbl();
    ~CxSeqMergeCnbl() override;

    QString title() const override;
    NODEKIT_PICTURE_NODE(1)
    CxChainable* clone() override;
    QWidget* configurationWidget() override;
    void simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                  bool& hasButtons) override;
    void simpleStateConfigButtonPressed(int id) override;
    bool saveSettings(QDomDocument& doc, QDomElement& element) const override;
    bool loadSettings(const QDomElement& element) override;
    void setupStart() override;
    void setupStop() override;
    IxChainData* processData(IxChainData* data) override;
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;

    ExMode mode() const { return m_mode; }
    int count() const { return m_count; }
    bool passCompleteOnly() const { return m_passCompleteOnly; }
    // Stores the mode, and the count when it is above 0; the title changes
    // either way. With restart a running chain is stopped around the change
    // so that the picture is made anew in the new size.
    void setCount(ExMode mode, int count, bool restart);
    // Read on the next frame; the widget sets it without a restart.
    void setPassCompleteOnly(bool passCompleteOnly, bool restart);

protected:
    // The working picture as it stands, as a new packet; then starts a new
    // picture. Null when the pool has no picture free (nothing is reset).
    CxImageData* createOutputDataAndResetWorkingPic(CxImageData* input);

private:
    bool usableCount() const { return m_count >= 1 && m_count <= MaxCount; }
    void placeFrame(const SxPicBuf& frame, int index);
    void paintStalePlaces();
    void resetWorkingPic();
    void freeWorkingPic();

    ExMode m_mode = ModeTiles;
    int m_count = 2;
    bool m_passCompleteOnly = true;
    int m_lastIndex = -1;
    quint64 m_receivedMask = 0;
    SxPicBuf m_working;

    // Places of the picture as made in setupStart: cols x rows tiles of
    // tileWidth x tileHeight, when they cover the picture exactly (else 0
    // and the picture is painted whole after each output). A set bit in
    // m_staleMask is a place still holding a frame of an earlier picture.
    quint32 m_tileWidth = 0;
    quint32 m_tileHeight = 0;
    int m_tileCols = 0;
    int m_tileRows = 0;
    quint64 m_staleMask = 0;
    // One place painted with 1, copied over the stale places.
    SxPicBuf m_blankPlace;
};
