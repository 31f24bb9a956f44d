#pragma once
#include "NodeKit.h"
#include <ExImageDataType.h>

#include <QtCore/QElapsedTimer>

#include <memory>

class CxHistoData;
class CxLut;

// Maps every picture through a look-up table: the source window
// [SrcMin, SrcMax] is stretched with a gamma over the full range of the
// input's significant bits (for signed samples the positive half, so that
// the top of the window does not wrap to negative values), or, with "map to
// RGB", into an 8-bit BGRA picture
// whose one-channel inputs go through a pseudo-colour table. With the
// automatic window the node measures the histogram of an incoming frame at
// most every 125 ms and sets SrcMin/SrcMax so that the given share (per
// mille) of the pixels at each end falls outside the window.
//
// The table is built lazily for the first frame of a format and thrown away
// when a setting changes, a frame of another format arrives or the automatic
// window moves. A window measured anew but not moved keeps the table: a
// rebuild of a 16-bit gamma table costs milliseconds and would change
// nothing.
//
// Tables exist for 8- and 16-bit integer pictures of one, three or four
// channels. Other pictures are passed on unmapped: copied as they are, or
// converted to RGB when "map to RGB" is on. A picture that can be neither
// mapped nor converted (64-bit samples into RGB, say) travels on unchanged
// and the node shows a message once.
//
// Settings are stored as they are read: no range is checked on load, a
// tolerance text is read as a number with decimals and cut to an integer
// (saturated to the 32-bit range), and a gamma that is not positive counts as
// 1 in the table. The widget keeps SrcMin below SrcMax.
//
// The settings fields are plain: the widget changes them only while the
// chain is stopped. The automatic window is written by processData on the
// chain thread; the widget reads it only when it is built.
class CxLutInmapCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "LUT Mapping")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxLutInmapCnbl")
public:
    // Frames between two histogram measurements are at least this far apart.
    static constexpr qint64 MeasureIntervalMs = 125;

    Q_INVOKABLE CxLutInmapCnbl();
    ~CxLutInmapCnbl() override;

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

    // Plain accessors; callers that change a setting while a chain runs stop
    // it first and call invalidateLuts() afterwards (the widget does both).
    bool mapToRgb() const { return m_mapToRgb; }
    void setMapToRgb(bool on) { m_mapToRgb = on; }
    int pseudoColor() const { return m_pseudoColor; }
    void setPseudoColor(int index) { m_pseudoColor = index; }
    bool autoMinMax() const { return m_autoMinMax; }
    void setAutoMinMax(bool on) { m_autoMinMax = on; }
    int autoTolerance() const { return m_autoTolerance; }
    void setAutoTolerance(int perMille) { m_autoTolerance = perMille; }
    qint64 srcMin() const { return m_srcMin; }
    void setSrcMin(qint64 v) { m_srcMin = v; }
    qint64 srcMax() const { return m_srcMax; }
    void setSrcMax(qint64 v) { m_srcMax = v; }
    double gamma() const { return m_gamma; }
    void setGamma(double g) { m_gamma = g; }

    // Drops the table and restarts the measurement interval.
    void invalidateLuts();
    // Builds the table for inputs of this kind unless one exists; leaves none
    // when the host cannot build it.
    void createLuts(unsigned int bitsPerSample, unsigned int channels, bool isColor,
                    ExImageDataType dataType);
    // Sets SrcMin/SrcMax from a histogram; false, settings untouched, for a
    // histogram without channels or bins.
    bool maximizeContrastForHisto(const CxHistoData* histo);

private:
    bool m_mapToRgb = false;
    int m_pseudoColor = 0;
    bool m_autoMinMax = true;
    int m_autoTolerance = 2;
    qint64 m_srcMin = 0;
    qint64 m_srcMax = 255;
    double m_gamma = 1.0;
    std::unique_ptr<CxLut> m_lut;
    QElapsedTimer m_measureTimer;
};
