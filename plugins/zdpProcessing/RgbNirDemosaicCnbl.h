#pragma once
#include "NodeKit.h"

#include <QtCore/QList>

// Splits the raw frame of an RGB-NIR camera, whose 2x2 cell holds one red,
// one green, one blue and one near-infrared pixel, into either a full-size
// colour picture or a full-size NIR picture.
//
// Cell positions are numbered row by row: 0 top-left, 1 top-right,
// 2 bottom-left, 3 bottom-right. A frame whose description is an RGB-NIR
// camera has its positions looked up by the band names "R", "G", "B", "NIR";
// any other mosaic is read with the usual layout NIR, B / R, G. Positions
// count from the picture's own origin, also for a zone that starts elsewhere.
// A band the description lacks yields position -1, which, as an unsigned
// number, is read as the bottom-right cell.
//
// Output:
//  * RGB: 8-bit, four channels stored B, G, R, alpha (alpha 255), packed rows.
//    The NIR pixels take no part: each colour is interpolated from its own
//    cells only. 16- and 32-bit samples are shifted down by their significant
//    bits beyond 8 (a 12-bit frame by 4); a sample above its significant bits
//    saturates at 255 instead of wrapping.
//  * NIR: the input's size, sample type, bits and row pitch, one channel.
//  Both are plain pictures (no mosaic, empty camera description).
// Inputs that are not one-channel raw mosaics pass through unchanged; so do
// packets that are not pictures.
//
// Interpolation of one component from its cells: a pixel on such a cell keeps
// its sample; one beside it horizontally or vertically takes the mean of the
// two neighbours in that direction; one diagonal to the cells takes the mean
// of the four diagonal neighbours. Means truncate. At the picture's edges the
// neighbours that fall outside are replaced by their mirror images inside
// (reflection about the edge pixel), which makes a pair collapse to its one
// inner neighbour, a diagonal four to the two inner ones, and a corner use the
// nearest pixel of the wanted kind. A picture one pixel wide or high has no
// mirror partner: the missing neighbour is then the edge pixel itself.
//
// Sample types: 8-, 16- and 32-bit unsigned. For any other type the output is
// still emitted, with its samples zeroed (alpha 255 in the RGB mode), so that
// no stale pool content is ever shown as a result.
//
// Settings: attribute "channel" (0 RGB, 1 NIR), stored as read, without range
// check; a value other than 1 works as RGB. Loading reports false when the
// attribute is missing (the channel is then kept), and text that is not a
// number loads as 0.
class CxRgbNirDemosaicCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "RGB-NIR Processing")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxRgbNirDemosaicCnbl")
public:
    enum ExChannel : int { RGB = 0, NIR = 1 };
    Q_ENUM(ExChannel)

    Q_INVOKABLE CxRgbNirDemosaicCnbl();
    ~CxRgbNirDemosaicCnbl() override;

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

    ExChannel channel() const { return m_channel; }
    // With restart, a running chain is stopped around the change: the output
    // format differs between the two channels.
    void setChannel(ExChannel channel, bool restart);

    // Index of the band named exactly name in the first filter zone of the
    // frame's camera description; -1 without such a band.
    static int pixelIndexInMosaic(const CxImageMetadata* meta, const QString& name);

private:
    ExChannel m_channel = RGB;
};

// One component (the cells at position k) of a one-channel mosaic, interpolated
// to every pixel, into channel outChannel of the interleaved picture out (the
// input's size). Samples are shifted down by the significant bits the input
// has beyond the output's. Members: <uchar, uchar>, <ushort, ushort>,
// <uint, uint>, <uchar, ushort>, <uchar, uint>. False, with out untouched, when
// the pictures do not fit these types, sizes or the channel.
template <class TOut, class TIn>
bool rgbnir_extractChannel_T(SxPicBuf& out, unsigned int outChannel, const SxPicBuf& in, unsigned int k);

// The three colour components at once into an 8-bit B, G, R, alpha picture,
// alpha set to 255: the same result as filling the alpha and running
// rgbnir_extractChannel_T for channels 0, 1, 2, in one pass over the output.
template <class TIn>
bool rgbnir_demosaicRgb_T(SxPicBuf& out, const SxPicBuf& in, unsigned int kB, unsigned int kG,
                          unsigned int kR);
