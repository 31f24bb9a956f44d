#pragma once
#include "NodeKit.h"

#include <vector>

// Replaces every sample by the median of the (2r + 1) x (2r + 1) samples
// around it; the median itself is the host's CxPicBufAPI::Median. What this
// node adds is that samples of different colours never mix: each plane is
// filtered on its own, where the planes are
//  * the four cells of a raw 2x2 mosaic (filter arrays 1..6),
//  * the bands of a simple hyperspectral mosaic (first filter zone),
//  * the channels of a picture with several channels per pixel.
// A picture marked as not raw (storage format 3) is filtered as a plain
// picture. Only unsigned 8- and 16-bit samples are filtered; anything else
// passes unchanged with a message.
//
// Planes hold exactly the samples of their cell or band: on a picture of odd
// width or height the cells of the first column or row get one sample more
// than the others, and a cell the picture does not reach (the second cell
// row of a one-row picture) gets an empty plane. So every output sample is
// written and no median ever sees a sample that is not of its own colour;
// the host's median repeats the edge samples of each plane at its borders.
//
// The host's median filters each channel of an interleaved picture on its
// own (a colour picture is handed to it whole), and one pattern row of a
// mosaic is such a picture: its rows lie ph picture rows apart and its
// pixels are pw samples wide. So the node hands the host the picture itself
// (several channels) or one view per pattern row (mosaics), and the host's
// threads do all the work; nothing is copied. When the picture's width is
// not a whole number of patterns, the first (width mod pw) planes hold one
// sample more than a view's pixels cover: the outputs within the radius of
// their last sample are filtered again on a strip of the plane's last
// 2r + 1 samples, which ends where the plane ends.
//
// Should the host refuse a view, the picture is split, filtered and woven
// back a band of rows at a time instead, so that the planes stay in the
// cache between the three steps; each row goes into all the planes it feeds
// in one pass. Those planes are made the first time they are needed.
//
// The work buffers and strips are made in setupStart for the format and
// radius the chain started with. A frame of another format, a
// radius set without a restart, a kernel the host cannot filter with (a size
// loaded from a document beyond what the host supports) or a plain picture
// the host's median refuses (16-bit rows not aligned to their samples)
// passes unchanged; the title shows the size set.
//
// Settings: attribute "kernelSize", the kernel size 2r + 1. Loading a size
// below 3, or text that is not a number, gives 3; an even size is taken as
// the odd size below it. Unlike the other nodes, an element without the
// attribute keeps the current size and makes loadSettings answer false,
// whatever the base class answered.
class CxMedianCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Median Filter")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxMedianCnbl")
public:
    Q_INVOKABLE CxMedianCnbl();
    ~CxMedianCnbl() override;

    QString title() const override;
    NODEKIT_PICTURE_NODE(1)
    CxChainable* clone() override;
    QWidget* configurationWidget() override;
    bool saveSettings(QDomDocument& doc, QDomElement& element) const override;
    bool loadSettings(const QDomElement& element) override;
    bool hasHelp() const override { return true; }
    QString help(QString& anchor) override;
    void setupStart() override;
    void setupStop() override;
    IxChainData* processData(IxChainData* data) override;
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;

    // The kernel size is 2r + 1. The accessors take the node's lock; the
    // setter does not restart the chain (the widget stops and starts it).
    int kernelRadius() const;
    void setKernelRadius(int radius);

    // How a picture splits into planes: pattern periods (pw, ph) and channels
    // per pixel; planes = pw x ph x channels. (1, 1, 1) is a plain picture
    // filtered whole.
    struct SxPlaneLayout
    {
        int periodX = 1;
        int periodY = 1;
        int channels = 1;
        bool hsi = false;
        int count() const { return periodX * periodY * channels; }
        bool operator==(const SxPlaneLayout& o) const
        {
            return periodX == o.periodX && periodY == o.periodY && channels == o.channels && hsi == o.hsi;
        }
    };
    static SxPlaneLayout planeLayout(const SxPicBufInfo& info, const CxImageMetadata* meta);

private:
    void freePlanes();
    bool makePlanes();
    bool setUpFor(const SxPicBuf& in, const SxPlaneLayout& layout) const;
    bool filterViews(const SxPicBuf& in, SxPicBuf& out, int radius);
    bool filterPlanes(const SxPicBuf& in, SxPicBuf& out, int radius);

    int m_radius = 1;
    void* m_work = nullptr;      // for whole pictures, or the planes
    void* m_viewWork = nullptr;  // for the pattern rows' views and strips
    SxPicBuf m_stripIn;          // the last samples of the planes of a pattern row
    SxPicBuf m_stripOut;
    bool m_planesRefused = false;  // the planes could not be made
    SxPicBuf m_inStack;  // the planes of a band, side by side
    SxPicBuf m_outStack;
    std::vector<uchar*> m_rows;  // one row of each plane of a pattern row
    int m_planeCount = 0;
    SxPlaneLayout m_layout;
    SxPicBufInfo m_setupFormat;  // the input format and radius the planes were made for
    int m_setupRadius = 0;
};

// Every plane of a picture laid out as l (plane i for cell (ox, oy) and
// channel c is i = (oy x pw + ox) x channels + c): picture rows y0..y1 - 1,
// each into its planes in one pass; picture row y is plane row
// y / ph - base. T is the sample type; each plane must be as wide as the
// samples the picture has at its place; rows holds pw x channels pointers,
// here and for med_filterInBands_T.
template <class T>
void med_splitPlanes_T(const SxPicBuf& in, const CxMedianCnbl::SxPlaneLayout& l, SxPicBuf* planes, uchar** rows,
                       quint32 y0, quint32 y1, quint32 base);
// Median of a picture with several planes, split, filtered (by filter, the
// host's median unless a benchmark times the rest alone) and woven back band
// rows of the planes at a time, the planes of a band side by side in one
// picture of med_stackFormat.
using MedPlaneFilter = bool (*)(const SxPicBuf& in, SxPicBuf& out, int radius, void* work);
template <class T>
bool med_filterInBands_T(const SxPicBuf& in, SxPicBuf& out, const CxMedianCnbl::SxPlaneLayout& l, SxPicBuf& inStack,
                         SxPicBuf& outStack, uchar** rows, int radius, void* work, quint64 band,
                         MedPlaneFilter filter = &CxPicBufAPI::Median);
// The format of plane i of a picture of format in laid out as l, and the
// plane rows of a band (without its context rows).
SxPicBufInfo med_planeFormat(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int i, int radius);
SxPicBufInfo med_stackFormat(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int radius);
// Pattern row oy of a picture laid out as l as a picture of its own: pw x
// channels interleaved channels, rows ph apart, as many whole patterns as a
// row holds. It shares the picture's memory.
SxPicBufInfo med_patternRowFormat(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int oy);
SxPicBuf med_patternRow(const SxPicBuf& pic, const CxMedianCnbl::SxPlaneLayout& l, int oy);
quint64 med_bandRows(const SxPicBufInfo& in, const CxMedianCnbl::SxPlaneLayout& l, int radius);
