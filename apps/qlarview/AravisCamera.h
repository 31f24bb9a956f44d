#pragma once
#include <CxImageSource.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <memory>

// A GenICam camera (GigE Vision, USB3 Vision, or the library's in-process
// fake camera) as the live source of a chain.
//
// Life cycle: open() a device, let a chain run the camera as its source
// (setupStart creates the stream and its buffers and starts the acquisition,
// setupStop stops it and frees them), close(). The chain owns its source, so
// the camera is usually opened before it is handed to the chain and closed
// (or deleted with the chain) after the chain stopped; close() stops a chain
// that still runs it.
//
// Pixel formats offered (pixelFormats(), by the camera's own names), and the
// pictures they become, always packed:
//  * Mono8: u8 x1; Mono10, Mono12, Mono14, Mono16 (one sample in 16 bits):
//    u16 x1 with 10, 12, 14 or 16 significant bits.
//  * BayerRG, BayerGR, BayerGB, BayerBG with 8, 10, 12 or 16 bits: one
//    channel, u8 or u16 as above, filter array RGGB, GRBG, GBRG, BGGR (the
//    format names the top-left row of the 2x2 cell; the host names its
//    patterns row by row from the top-left, so the letters carry over).
//  * RGB8 (also called RGB8Packed): u8 x3, colour, stored blue first as every
//    colour picture of the host.
// Packed 10- and 12-bit formats (three bytes for two samples) and every other
// format are not offered; a camera left in one of them by another program
// refuses to start until a supported format is set.
//
// Frames: live, numbered from 0 at each start by the camera's frame ids (so
// frames the camera or the network lost leave gaps; 16-bit ids are
// unwrapped), timestampMs from the host's arrival time since the start,
// exposureTimeUs the exposure last set or read, the metadata's camera name
// the title and its timestamp the arrival time.
//
// Controls: exposure time in microseconds, gain, frame rate in Hz. Gain is in
// dB where the camera has the standard Gain feature, in the camera's raw
// steps where it only has GainRaw (both fake cameras); gainUnit() tells which.
// Setting the frame rate first switches the camera's frame-rate control on
// where it has one (AcquisitionFrameRateEnable).
//
// Threads:
//  * GUI thread: devices(), enableFakeInterface(), open(), close(),
//    setPixelFormat() and sourceFormat() (with the chain stopped), and the
//    controls (also while the chain streams). Calls that talk to the camera
//    are serialised by an internal lock; against a camera that stopped
//    answering a call may block for the transport's timeout (about 2.5 s on
//    GigE Vision) before it fails, after which the camera counts as lost.
//  * The chain's thread that starts and stops it: setupStart(), setupStop().
//  * The chain's source thread: grabFrame(). It touches only the stream (whose
//    queues are thread-safe) and never the camera's features, so controls set
//    from the GUI never wait for a frame and vice versa.
//  * Any thread: counters(), lost(), lostMessage(), isOpen(), deviceId(),
//    title().
//
// A camera that goes away: the library's loss of control (GigE Vision
// heartbeat failing, within about 6 s of the camera's last answer, a delay
// the library offers no setting for; a USB camera unplugged), ten or more failed buffers in a row without a good one
// for 3 s, or a call that times out. From then on grabFrame returns null,
// lost() is true and cameraLost is emitted once, from the thread that
// noticed (a library thread, the source thread or the GUI thread): connect
// it queued. The owner then stops the chain and closes the camera; neither
// talks to the lost camera any more, and what the library still has to tear
// down (and would wait for with its timeouts) is released on helper threads
// that only the destructor waits for. The same object can open the camera
// again once it is back.
class CxAravisCamera : public CxImageSource
{
    Q_OBJECT
public:
    struct SxDevice
    {
        QString id;        // what open() takes
        QString vendor, model, serial;
        QString address;   // IP address (GigE Vision), bus address (USB), 0.0.0.0 (fake)
        QString protocol;  // "GigEVision", "USB3Vision", "Fake"
    };

    // Counted since open(), from the source thread.
    struct SxCounters
    {
        qint64 delivered = 0;   // frames handed to the chain
        qint64 incomplete = 0;  // buffers with missing data (lost packets, timeouts)
        qint64 failed = 0;      // other unusable buffers, a picture of an unexpected format among them
        qint64 dropped = 0;     // good frames dropped because the chain had no free picture
    };

    CxAravisCamera();
    ~CxAravisCamera() override;

    // Every device of every enabled interface, after a new discovery: GigE
    // Vision broadcasts on every network interface, loopback included, and
    // waits about a second for answers, so a simulator bound to 127.0.0.1 is
    // found like a real camera (id "<vendor>-<model>-<serial>"). GUI thread.
    static QList<SxDevice> devices();
    // Makes the library's in-process fake camera part of devices().
    static void enableFakeInterface();

    // An empty id opens the first device devices() lists. Besides the ids
    // of devices(), GigE Vision cameras open by IP address. A camera that is
    // open is closed first.
    bool open(const QString& deviceId, QString* error);
    void close();
    bool isOpen() const;
    QString deviceId() const;
    // "Vendor Model (serial)", or a generic name while closed.
    QString title() const override;

    QStringList pixelFormats() const;
    QString pixelFormat() const;
    // Only while no chain streams from the camera.
    bool setPixelFormat(const QString& name, QString* error);

    // Ranges and values: false / 0 when the camera is closed or lacks the
    // control. A lost camera answers with the last known values.
    bool exposureRange(double& min, double& max) const;
    double exposure() const;
    bool setExposure(double us, QString* error);
    bool gainRange(double& min, double& max) const;
    double gain() const;
    bool setGain(double value, QString* error);
    QString gainUnit() const;  // "dB", or empty for raw steps
    bool frameRateRange(double& min, double& max) const;
    double frameRate() const;
    bool setFrameRate(double hz, QString* error);

    SxCounters counters() const;
    bool lost() const;
    QString lostMessage() const;

    bool sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta) override;
    IxChainData* grabFrame() override;
    void setupStart() override;
    void setupStop() override;

signals:
    void cameraLost(const QString& message);

private:
    struct Private;
    std::unique_ptr<Private> d;
};
