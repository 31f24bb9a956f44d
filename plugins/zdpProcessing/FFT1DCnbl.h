#pragma once
#include "FFT1DPlot.h"

#include "NodeKit.h"

#include <QtCore/QList>

#include <memory>
#include <vector>

// The amplitude spectrum of a picture's mean profile, drawn as a graph into
// a 2048 x 1536 colour picture.
//
// Per frame: one channel is chosen (as the 2D spectrum node chooses it; a
// 2x2 mosaic cell is half the input's size, a hyperspectral band the size of
// its filter zone divided by the pattern), its rows ("Mean of cols") or its
// columns ("Mean of rows") are averaged into a profile of n samples, the
// profile is transformed, and the amplitudes of the non-negative frequencies
// are plotted from 0 towards 0.5 periods/pixel. Odd n shows n/2 bins; even n
// shows n/2 with the zero frequency and n/2 - 1 without it. Without the zero
// frequency the first non-zero frequency is drawn at X = 0.
//
// The profile sums are exact (integer sums, converted to float once and
// divided by the count), so the profile does not depend on the summation
// order and the loops vectorise.
//
// Output picture: 8-bit, 4 channels in memory order blue, green, red, alpha
// (the byte order of the host's 32-bit pictures), always opaque. Its
// description is the input's with the mosaic value cleared and the channel
// names set to "B", "G", "R", "A", so that writers store the colours right.
//
// Accepted inputs: packed storage, at most 4 channels, samples of at most
// 2 bytes; frames must be 8- or 16-bit unsigned, others pass on unchanged
// with a message, as do frames whose channel cannot be cut out and frames
// when no plot can be drawn (a program without QApplication). A frame whose
// profile length differs from the run's yields nothing.
//
// The plot (see CxFFT1DSpectrumPlot) is painted on the chain thread under
// the node mutex; the setters that change it take the same mutex.
class CxFFT1DCnbl : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Fast Fourier Transform 1D")
    Q_CLASSINFO("UniqueID", "de.korvel.Vistrel.CxFFT1DCnbl")
public:
    enum ExTransformType : int {
        rows = 0,  // mean over all rows: a horizontal profile, n = width
        cols = 1   // mean over all columns: a vertical profile, n = height
    };
    Q_ENUM(ExTransformType)

    static constexpr quint32 OutputWidth = 2048;
    static constexpr quint32 OutputHeight = 1536;

    Q_INVOKABLE CxFFT1DCnbl();
    ~CxFFT1DCnbl() override;

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

    void setChannel(int channel);
    int channel() const { return nodekit::lockedGet(this, m_channel); }
    // "Tranform" is the name the host's panels call.
    void setTranformType(ExTransformType type);
    ExTransformType transformType() const { return nodekit::lockedGet(this, m_transformType); }
    void setIncludeDC(bool on) { nodekit::lockedSet(this, m_includeDC, on); }
    bool includeDC() const { return nodekit::lockedGet(this, m_includeDC); }
    void setAxisYLogarithmic(bool on) { nodekit::locked(this, [&] { m_plot->setAxisYLogarithmic(on); }); }
    bool axisYLogarithmic() const { return nodekit::locked(this, [&] { return m_plot->axisYLogarithmic(); }); }
    void setGridXVisible(bool on) { nodekit::locked(this, [&] { m_plot->setGridXVisible(on); }); }
    bool gridXVisible() const { return nodekit::locked(this, [&] { return m_plot->gridXVisible(); }); }
    void setGridYVisible(bool on) { nodekit::locked(this, [&] { m_plot->setGridYVisible(on); }); }
    bool gridYVisible() const { return nodekit::locked(this, [&] { return m_plot->gridYVisible(); }); }
    void setAutoScaleY(bool on) { nodekit::lockedSet(this, m_autoScaleY, on); }
    bool autoScaleY() const { return nodekit::lockedGet(this, m_autoScaleY); }
    void setMinY(double v) { nodekit::lockedSet(this, m_minY, v); }
    double minY() const { return nodekit::lockedGet(this, m_minY); }
    void setMaxY(double v) { nodekit::lockedSet(this, m_maxY, v); }
    double maxY() const { return nodekit::lockedGet(this, m_maxY); }

    // The input format of the current (or last) run; zero before the first.
    void inputFormat(SxPicBufInfo& info, CxImageMetadata* meta) const;
    // False when no plot can be drawn in this program (no QApplication).
    bool canDraw() const;

    // Y ticks from 0 (linear) or by decades (logarithmic) for the range.
    static void getYTicksAndLabels(double lower, double upper, bool logarithmic, QList<double>& ticks,
                                   QList<QString>& labels);

private:
    bool picInfoForExtract(SxPicBufInfo& info) const;

    int m_channel = -1;
    ExTransformType m_transformType = cols;
    bool m_includeDC = true;
    void* m_fft1 = nullptr;
    void* m_fft2 = nullptr;
    void* m_fft3 = nullptr;
    SxPicBuf m_extract;
    SxPicBufInfo m_inInfo;
    CxImageMetadata m_inMeta;
    std::unique_ptr<float[]> m_meanLine;
    std::unique_ptr<float[]> m_re;
    std::unique_ptr<float[]> m_im;
    int m_n = 0;
    bool m_runIncludeDC = true;
    std::unique_ptr<CxFFT1DSpectrumPlot> m_plot;
    QList<double> m_keys;
    QList<double> m_amplitudes;
    bool m_autoScaleY = true;
    double m_minY = 0.0;
    double m_maxY = 400000.0;
    std::vector<quint64> m_columnSums;
    std::vector<quint32> m_columnBlock;
};

// Displayed bins and the index of the first of them in a centred spectrum
// of n bins (zero frequency at n / 2).
int calc_disp_fft_len(int n, bool includeDC);
int calc_disp_fft_start_idx(int n, bool includeDC);
// Amplitudes |re + i im| of bins start .. end - 1 into out[0 ..], which must
// already hold end - start entries; max starts at 0 and min at the largest
// double.
void calc_amplitude(const float* re, const float* im, QList<double>& out, int end, double& max, double& min,
                    int start);

// The mean profile of a one-channel picture of T samples into line:
// type cols gives one value per row, type rows one per column (columnSums
// and columnBlock hold width entries each).
template <class T>
void fft1d_meanProfile_T(const SxPicBuf& pic, CxFFT1DCnbl::ExTransformType type, float* line,
                         quint64* columnSums, quint32* columnBlock);
