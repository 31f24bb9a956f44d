#pragma once
#include "NodeKit.h"

// Lets through only the frames whose frame number leaves the stored remainder
// modulo M, so that a stream is thinned to every M-th frame. Packets pass on
// untouched: no picture is made and no pool picture is needed.
//
// The remainder is taken with the sign of the frame number (C++ %), so a
// negative frame number never matches a positive remainder. A modulo below 2
// (1 from the panel, or 0 and negatives from a chain document) lets every frame
// through. Packets that are not pictures are passed on as they are.
//
// The panel changes modulo and remainder while frames flow, without restarting
// the chain. Both values are stored and read together under the node's lock,
// so a frame is always judged by a pair that was set as one.
//
// Settings: "filterModulo" and "filterRemainder", decimal integers; loading
// takes any integer as it is (text that is not one loads as 0), while the
// setter keeps only a positive modulo and a remainder of 0 or more.
class CxFilterImagesCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Filter Images")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.FilterImagesCnbl")
public:
    Q_INVOKABLE CxFilterImagesCnbl();
    ~CxFilterImagesCnbl() override;

    QString title() const override;
    NODEKIT_PICTURE_NODE(0)
    CxChainable* clone() override;
    QWidget* configurationWidget() override;
    bool saveSettings(QDomDocument& doc, QDomElement& element) const override;
    bool loadSettings(const QDomElement& element) override;
    IxChainData* processData(IxChainData* data) override;
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;

    int filterModulo() const;
    int filterRemainder() const;
    // A modulo of 0 or less, or a negative remainder, leaves that value as it
    // is (the panel passes -1 for "unchanged"). Emits titleChanged.
    void setFilterModulo(int modulo, int remainder, bool restart);

    // Whether a frame with this number passes a filter with these values.
    static bool passes(qint32 frameNumber, int modulo, int remainder);

private:
    void values(int& modulo, int& remainder) const;

    int m_modulo = 2;
    int m_remainder = 0;
};
