#pragma once
#include "NodeKit.h"

#include <QtCore/QList>

// Turns every picture into a one-channel picture holding one component of it:
// a plane of a multi-channel picture, one of the four cells of a 2x2 raw
// mosaic, or one band of a hyperspectral mosaic.
//
// The stored channel is one number read against the input format:
//  * several channels per pixel: the plane, in the buffer's own order;
//  * one channel, filter array 1..6 (storage format not 3): the cell of the
//    2x2 mosaic, row by row: 0 top-left, 1 top-right, 2 bottom-left,
//    3 bottom-right;
//  * one channel, filter array 7 (storage format not 3): the band counted
//    over all filter zones of the camera, zone by zone;
//  * anything else: ignored, the picture is copied as it is.
// An index beyond what the input has is used as the last one it has, frame by
// frame; the stored value itself is kept, so it comes back when a wider input
// arrives.
//
// Output: one channel of the input's sample type, rows aligned to 4 bytes.
//  * 2x2 mosaic: half the width and half the height, rounded down (an odd
//    last column or row has no complete cell and is dropped); the result is a
//    plain picture (filter array 0, no channel names in its description).
//  * Hyperspectral band: the band's filter zone divided by the pattern period
//    (zone width / bands across, zone height / bands down). A zone with an
//    inverted rectangle measures the whole input instead; a zone whose period
//    is not positive is not divided. The result is a plain picture with an
//    empty camera description, also when the band cannot be found (an input
//    without bands is then copied whole).
//  * Otherwise the input's size.
// The 2x2 and band routes copy 8-, 16-, 32-bit unsigned and float samples
// unchanged (float outputs get their minimum and maximum measured). Other
// sample types, and hyperspectral inputs with an unusable description, go
// through CxPicBufAPI::ExtractChannel with the same index; when that refuses
// the picture too, the frame yields no output rather than a picture of
// undefined content.
//
// Band kernel: a band of a zone with single-pixel cells is sampled every
// pattern period from the band's first pixel. With cells taller or wider than
// one pixel, rows come in groups of the cell height whose starts lie
// patternHeight x cellHeight x cellHeight rows apart, and each row is made of
// runs of cellWidth samples whose starts lie patternWidth x cellWidth columns
// apart; the row rule is kept as it has always been built. Samples whose
// source row or column falls outside the input picture are written as 0;
// nothing outside either picture is read or written.
//
// Channel list offered to the user (widget and quick buttons), in display
// order, with the index value each entry stores:
//  * metadata channel names, when there are exactly as many as the input has
//    channels per pixel: those names, indices 0..n-1 (this applies to
//    one-channel pictures too);
//  * several channels per pixel, colour flag set, 3 or 4 channels: the planes
//    in the order a colour picture stores them, "Blue", "Green", "Red" and,
//    for the fourth, "Alpha";
//  * several channels otherwise: "Channel 0", "Channel 1", ...;
//  * 2x2 mosaic: the four cells in index order, named by their colour; two
//    cells of one colour are told apart as "Green 1"/"Green 2" (filter arrays
//    1 to 4) and "Red 1"/"Red 2" (filter array 6); filter array 5 is "Cyan",
//    "Magenta", "Yellow", "Green";
//  * hyperspectral mosaic with a valid description: the bands zone by zone,
//    each zone's bands by ascending wavelength, by their band names (a band
//    without a name is "Channel <index>"), indices the overall band index;
//  * anything else, an unusable hyperspectral description included: "Mono", 0.
//
// Settings: attribute "channelIdx", the stored index as an unsigned decimal.
// Loading reads a missing attribute as 0, and text that is not an unsigned
// 32-bit decimal number (negative, too large or no number) also as 0.
//
// Quick buttons: one per listed channel when the list has 2 to 4 entries,
// none otherwise; the host's flag is set either way.
class CxExtractChannelCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Extract Channel")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxExtractChannelCnbl")
public:
    Q_INVOKABLE CxExtractChannelCnbl();
    ~CxExtractChannelCnbl() override;

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

    unsigned int channel() const { return m_channel; }
    // The name that came with the last choice in the widget; shown nowhere
    // by the node itself.
    QString channelName() const { return m_channelName; }
    // Stores the index only, whatever the chain does (loading uses it).
    void setChannel(unsigned int channel);
    // With restart, a running chain is stopped around the change so that the
    // output size is negotiated again before the next frame.
    void setChannel(unsigned int channel, const QString& name, bool restart);

    // The component the stored channel selects in a picture of this format.
    unsigned int extractingComponentIndex(const SxPicBufInfo& info,
                                          const CxImageMetadata* meta) const;
    // The channels offered for the current input (empty before the node has
    // seen a format), and the index currently extracted.
    void listOfAvailableChannels(QList<QString>& names, QList<int>& indices, int* current);

private:
    unsigned int m_channel = 0;
    QString m_channelName;
};
