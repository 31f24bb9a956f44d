#pragma once
#include "NodeKit.h"

class CxHsiCameraParams;

// The two-dimensional spectrum of one channel of every picture, passed on as
// a spectrum packet: the real and the imaginary part as one-channel float
// pictures of the input's width and height, zero frequency in the centre.
//
// What is transformed (the stored channel read against the input layout):
//  * one channel without a mosaic, or channel -1: the input itself (a raw
//    mosaic as a whole);
//  * several channels per pixel: that plane;
//  * a hyperspectral mosaic: that band, counted over all filter zones;
//  * a 2x2 mosaic: that cell (0 top-left, 1 top-right, 2 bottom-left,
//    3 bottom-right).
// Bands and cells are smaller than the input, yet the spectrum keeps the
// input's size so that the output format does not depend on the channel: the
// cut-out sits in the top-left corner of a picture of the input's size whose
// every other sample is 0.
//  * A band holds exactly the samples Extract Channel gives for it: it stops
//    at the band's own filter zone (the zone's rectangle, or the whole picture
//    when the rectangle is inverted, divided by the pattern period), cut to
//    the input's size should the zone reach past the picture.
//  * A cell takes every second sample of every second row from its corner as
//    far as the picture reaches, so an odd last row belongs to cells 0 and 1
//    and an odd last column to cells 0 and 2: of a W x H picture those take
//    (W + 1) / 2 columns or (H + 1) / 2 rows, the others W / 2 and H / 2.
//    (Extract Channel leaves such a row or column out.)
//
// The parts are announced as 32-bit pictures of data type 5 (signed 32-bit),
// as the host's viewers expect of a spectrum, yet their samples are floats:
// host programs read them through CxFFTImageData::floatView.
//
// Accepted inputs: packed storage, at most 4 channels, samples of at most
// 2 bytes. Several channels need the colour flag; a one-channel picture with
// a mosaic value, no colour flag and not-raw storage is refused too. Refused
// pictures, and a channel the picture does not have, pass on unchanged with a
// message for the user; a frame whose size no longer matches the run, or that
// the transform refuses, yields nothing.
class CxFFT2DCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Fast Fourier Transform 2D")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxFFT2DCnbl")
public:
    Q_INVOKABLE CxFFT2DCnbl();
    ~CxFFT2DCnbl() override;

    QString title() const override;
    NODEKIT_TAKES_PICTURES(2)
    CxChainable* clone() override;
    QWidget* configurationWidget() override;
    bool hasConfigurationWidget() const override;
    bool saveSettings(QDomDocument& doc, QDomElement& element) const override;
    bool loadSettings(const QDomElement& element) override;
    bool hasHelp() const override { return true; }
    QString help(QString& anchor) override;
    void setupStart() override;
    void setupStop() override;
    IxChainData* processData(IxChainData* data) override;
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;

    int channel() const;
    void setChannel(int channel);

    // The input format of the current (or last) run; zero before the first.
    void inputFormat(SxPicBufInfo& info, CxImageMetadata* meta) const;

    // Display name of channel index for pictures of this layout; used by both
    // spectrum nodes and their panels.
    static QString channelNameForIndex(int index, const SxPicBufInfo& info, const CxHsiCameraParams* hsi);
    // The channels both spectrum panels offer for pictures of this layout.
    static void channelList(const SxPicBufInfo& info, const CxHsiCameraParams& hsi, QList<QString>& names,
                            QList<int>& indices);
    static bool isSupportedInput(const SxPicBufInfo& info);
    // Packed, at most 4 channels, samples of at most 2 bytes.
    static bool isTransformableFormat(const SxPicBufInfo& info);

private:
    int m_channel = 0;
    void* m_fft1 = nullptr;
    void* m_fft2 = nullptr;
    void* m_fft3 = nullptr;
    SxPicBuf m_extract;
    SxPicBufInfo m_inInfo;
    CxImageMetadata m_inMeta;
    // Top-left area of m_extract that may hold samples of an earlier cut-out.
    quint32 m_filledWidth = 0;
    quint32 m_filledHeight = 0;
};

// Cell (channel 0..3, row by row) of a one-channel 2x2 mosaic into the
// top-left corner of out: source rows rowOffset, rowOffset + 2, ... and
// columns colOffset, colOffset + 2, ...; samples are copied unchanged. Only
// as much as both pictures hold is touched. False for other sample types
// than 8 and 16 bits, other channel counts or missing pixels.
bool fft_copyMosaicCell(const SxPicBuf& in, SxPicBuf& out, int channel);

// The one-channel picture a spectrum node analyses for channel: the input
// itself, or the plane, band or cell copied into work. Null when the input
// has no such channel or work does not fit it.
const SxPicBuf* fft_selectChannel(const SxPicBuf& in, const CxImageMetadata* meta, int channel,
                                  SxPicBuf& work);
