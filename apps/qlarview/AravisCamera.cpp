// GLib names struct members "signals"; its headers go first, before Qt's
// keyword macros exist.
#include <arv.h>

#include "AravisCamera.h"

#include <CxChain.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>

#include <QtCore/QDateTime>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Short enough that a chain stop never waits long for the source thread.
constexpr guint64 PopTimeoutUs = 20000;
constexpr int StreamBuffers = 6;
// A stream that gives this many broken buffers in a row, and no good one
// for this long, has lost its camera even when the library did not notice.
constexpr int FailuresToLose = 10;
constexpr gint64 FailureWindowUs = 3000000;

struct SxFormatMap
{
    guint32 arv;
    const char* name;
    ExImageDataType type;
    quint32 bits;
    quint32 channels;
    ExColorFilterArray cfa;
};

// The 2x2 phase names carry over letter for letter: both name the cells row
// by row from the top-left.
const SxFormatMap kFormats[] = {
    {ARV_PIXEL_FORMAT_MONO_8, "Mono8", IDT_UINT8, 8, 1, CFA_NONE},
    {ARV_PIXEL_FORMAT_MONO_10, "Mono10", IDT_UINT16, 10, 1, CFA_NONE},
    {ARV_PIXEL_FORMAT_MONO_12, "Mono12", IDT_UINT16, 12, 1, CFA_NONE},
    {ARV_PIXEL_FORMAT_MONO_14, "Mono14", IDT_UINT16, 14, 1, CFA_NONE},
    {ARV_PIXEL_FORMAT_MONO_16, "Mono16", IDT_UINT16, 16, 1, CFA_NONE},
    {ARV_PIXEL_FORMAT_BAYER_RG_8, "BayerRG8", IDT_UINT8, 8, 1, CFA_BAYER_RGGB},
    {ARV_PIXEL_FORMAT_BAYER_GR_8, "BayerGR8", IDT_UINT8, 8, 1, CFA_BAYER_GRBG},
    {ARV_PIXEL_FORMAT_BAYER_GB_8, "BayerGB8", IDT_UINT8, 8, 1, CFA_BAYER_GBRG},
    {ARV_PIXEL_FORMAT_BAYER_BG_8, "BayerBG8", IDT_UINT8, 8, 1, CFA_BAYER_BGGR},
    {ARV_PIXEL_FORMAT_BAYER_RG_10, "BayerRG10", IDT_UINT16, 10, 1, CFA_BAYER_RGGB},
    {ARV_PIXEL_FORMAT_BAYER_GR_10, "BayerGR10", IDT_UINT16, 10, 1, CFA_BAYER_GRBG},
    {ARV_PIXEL_FORMAT_BAYER_GB_10, "BayerGB10", IDT_UINT16, 10, 1, CFA_BAYER_GBRG},
    {ARV_PIXEL_FORMAT_BAYER_BG_10, "BayerBG10", IDT_UINT16, 10, 1, CFA_BAYER_BGGR},
    {ARV_PIXEL_FORMAT_BAYER_RG_12, "BayerRG12", IDT_UINT16, 12, 1, CFA_BAYER_RGGB},
    {ARV_PIXEL_FORMAT_BAYER_GR_12, "BayerGR12", IDT_UINT16, 12, 1, CFA_BAYER_GRBG},
    {ARV_PIXEL_FORMAT_BAYER_GB_12, "BayerGB12", IDT_UINT16, 12, 1, CFA_BAYER_GBRG},
    {ARV_PIXEL_FORMAT_BAYER_BG_12, "BayerBG12", IDT_UINT16, 12, 1, CFA_BAYER_BGGR},
    {ARV_PIXEL_FORMAT_BAYER_RG_16, "BayerRG16", IDT_UINT16, 16, 1, CFA_BAYER_RGGB},
    {ARV_PIXEL_FORMAT_BAYER_GR_16, "BayerGR16", IDT_UINT16, 16, 1, CFA_BAYER_GRBG},
    {ARV_PIXEL_FORMAT_BAYER_GB_16, "BayerGB16", IDT_UINT16, 16, 1, CFA_BAYER_GBRG},
    {ARV_PIXEL_FORMAT_BAYER_BG_16, "BayerBG16", IDT_UINT16, 16, 1, CFA_BAYER_BGGR},
    {ARV_PIXEL_FORMAT_RGB_8_PACKED, "RGB8", IDT_UINT8, 8, 3, CFA_NONE},
};

const SxFormatMap* formatMap(guint32 arv)
{
    for (const SxFormatMap& f : kFormats)
        if (f.arv == arv)
            return &f;
    return nullptr;
}

QString text(const char* s) { return s ? QString::fromUtf8(s) : QString(); }

// Takes the error over and frees it.
QString takeMessage(GError*& e)
{
    const QString m = e ? text(e->message) : QString();
    g_clear_error(&e);
    return m;
}

// Errors that mean the camera no longer answers, as opposed to a refused
// value or a missing feature.
bool meansGone(const GError* e)
{
    return e && e->domain == ARV_DEVICE_ERROR
        && (e->code == ARV_DEVICE_ERROR_TIMEOUT || e->code == ARV_DEVICE_ERROR_NOT_CONNECTED
            || e->code == ARV_DEVICE_ERROR_TRANSFER_ERROR);
}

// The library's device list is process-wide state.
std::mutex& systemLock()
{
    static std::mutex m;
    return m;
}

template <class T>
void copyRows(const uchar* src, quint64 srcPitch, SxPicBuf& pic, quint32 bits, bool swapRb)
{
    const quint32 w = pic.width, ch = pic.channels;
    const T full = T((quint64(1) << bits) - 1);
    const bool clamp = bits < sizeof(T) * 8;
    for (quint32 y = 0; y < pic.height; ++y) {
        const T* s = reinterpret_cast<const T*>(src + y * srcPitch);
        T* t = pic.row<T>(y);
        if (swapRb) {
            for (quint32 x = 0; x < w; ++x) {
                t[3 * x] = s[3 * x + 2];
                t[3 * x + 1] = s[3 * x + 1];
                t[3 * x + 2] = s[3 * x];
            }
        } else if (clamp) {
            // Cameras that set bits above the format's depth would otherwise
            // hand nodes samples beyond full scale.
            for (quint64 i = 0; i < quint64(w) * ch; ++i)
                t[i] = std::min(s[i], full);
        } else {
            std::memcpy(t, s, quint64(w) * ch * sizeof(T));
        }
    }
}

} // namespace

struct CxAravisCamera::Private
{
    CxAravisCamera* q = nullptr;

    // Every use of the camera's features: GUI calls, setupStart, setupStop.
    mutable std::mutex deviceLock;
    ArvCamera* camera = nullptr;            // changed by open/close only
    std::atomic<ArvDevice*> device{nullptr};  // tells the loss handler whose signal it sees
    gulong lostHandler = 0;

    // What open() learnt and the last known control values; read anywhere.
    mutable std::mutex infoLock;
    QString id, title, lostMessage;
    QList<QPair<QString, guint32>> formats;  // the camera's names of the formats we map
    QString formatName;
    guint32 format = 0;
    quint32 width = 0, height = 0;
    bool hasGain = false;
    double exposure = 0.0, gain = 0.0, frameRate = 0.0;

    std::atomic<bool> isOpen{false};
    std::atomic<bool> lost{false};
    std::atomic<float> streamExposure{0.f};
    std::atomic<qint64> delivered{0}, incomplete{0}, failed{0}, dropped{0};

    // Between setupStart and setupStop; used by grabFrame alone meanwhile.
    ArvStream* stream = nullptr;
    SxPicBufInfo streamInfo;
    CxImageMetadata streamMeta;
    const SxFormatMap* streamMap = nullptr;
    qint64 startMs = 0;
    int failuresInRow = 0;
    gint64 lastGoodUs = 0;
    bool haveFirstId = false;
    guint64 firstId = 0, lastRawId = 0, idOffset = 0;

    // Frames count from the first buffer of the acquisition; 16-bit ids
    // (GigE Vision 1.x) are unwrapped.
    qint32 frameNumber(guint64 raw)
    {
        if (!haveFirstId) {
            haveFirstId = true;
            firstId = lastRawId = raw;
        }
        if (raw < lastRawId && lastRawId <= 0xffff && lastRawId - raw > 0x8000)
            idOffset += 0x10000;
        lastRawId = raw;
        return qint32(raw + idOffset - firstId);
    }

    struct SxReaper
    {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::mutex reaperLock;
    std::vector<SxReaper> reapers;

    static void onControlLost(ArvDevice* device, gpointer self)
    {
        auto* p = static_cast<Private*>(self);
        if (p->device.load() == device)
            p->markLost(CxAravisCamera::tr("the connection to it was lost"));
    }

    void markLost(const QString& reason)
    {
        if (lost.exchange(true))
            return;
        QString message;
        {
            std::lock_guard<std::mutex> lock(infoLock);
            lostMessage = CxAravisCamera::tr("The camera \"%1\" went away: %2").arg(title, reason);
            message = lostMessage;
        }
        emit q->cameraLost(message);
    }

    // A failed call's message; a call that timed out also loses the camera.
    QString failure(GError*& e)
    {
        const bool gone = meansGone(e);
        const QString m = takeMessage(e);
        if (gone)
            markLost(m);
        return m;
    }

    // Drops the objects on a helper thread: against a camera that no longer
    // answers, the library waits out its timeouts while tearing them down.
    // The destructor waits for them, since a loss handler may still run
    // until the device is gone.
    void reap(std::vector<gpointer> objects)
    {
        std::lock_guard<std::mutex> lock(reaperLock);
        for (auto it = reapers.begin(); it != reapers.end();) {
            if (it->done->load()) {
                it->thread.join();
                it = reapers.erase(it);
            } else {
                ++it;
            }
        }
        auto done = std::make_shared<std::atomic<bool>>(false);
        reapers.push_back({std::thread([objects, done] {
                               for (gpointer o : objects)
                                   g_object_unref(o);
                               *done = true;
                           }),
                           done});
    }

    void joinReapers()
    {
        std::vector<SxReaper> all;
        {
            std::lock_guard<std::mutex> lock(reaperLock);
            all.swap(reapers);
        }
        for (SxReaper& r : all)
            r.thread.join();
    }

    void freeStream()
    {
        if (!stream)
            return;
        if (!lost.load()) {
            GError* e = nullptr;
            {
                std::lock_guard<std::mutex> lock(deviceLock);
                arv_camera_stop_acquisition(camera, &e);
            }
            if (e)
                failure(e);
        }
        // The stream owns its buffers and frees them with itself.
        if (lost.load())
            reap({stream});
        else
            g_object_unref(stream);
        stream = nullptr;
        streamMap = nullptr;
    }

    // Reads format and size back from the camera.
    bool refreshFormat(QString* error)
    {
        GError* e = nullptr;
        guint32 f = 0;
        QString name;
        gint x = 0, y = 0, w = 0, h = 0;
        {
            std::lock_guard<std::mutex> lock(deviceLock);
            f = guint32(arv_camera_get_pixel_format(camera, &e));
            if (!e)
                name = text(arv_camera_get_pixel_format_as_string(camera, &e));
            if (!e)
                arv_camera_get_region(camera, &x, &y, &w, &h, &e);
        }
        // Outside the lock: the loss signal may reach a receiver that calls
        // back into the camera.
        if (e) {
            const QString m = failure(e);
            if (error)
                *error = m;
            return false;
        }
        std::lock_guard<std::mutex> info(infoLock);
        format = f;
        formatName = name;
        width = quint32(std::max(w, 0));
        height = quint32(std::max(h, 0));
        return true;
    }

    // Runs one control call under the device lock.
    template <class Fn>
    bool control(QString* error, Fn&& fn)
    {
        if (!isOpen.load() || lost.load()) {
            if (error)
                *error = lost.load() ? q->lostMessage() : CxAravisCamera::tr("No camera is open");
            return false;
        }
        GError* e = nullptr;
        {
            std::lock_guard<std::mutex> lock(deviceLock);
            fn(&e);
        }
        if (!e)
            return true;
        const QString m = failure(e);
        if (error)
            *error = m;
        return false;
    }

    template <class Fn>
    bool range(double& min, double& max, Fn&& fn) const
    {
        if (!isOpen.load() || lost.load())
            return false;
        GError* e = nullptr;
        double lo = 0.0, hi = 0.0;
        {
            std::lock_guard<std::mutex> lock(deviceLock);
            fn(&lo, &hi, &e);
        }
        if (e) {
            const_cast<Private*>(this)->failure(e);
            return false;
        }
        min = lo;
        max = hi;
        return true;
    }

    // A fresh value from the camera, or the last known one when it cannot
    // answer.
    template <class Fn>
    double value(double& cache, Fn&& fn) const
    {
        if (isOpen.load() && !lost.load()) {
            GError* e = nullptr;
            double v = 0.0;
            {
                std::lock_guard<std::mutex> lock(deviceLock);
                v = fn(&e);
            }
            if (e) {
                const_cast<Private*>(this)->failure(e);
            } else {
                std::lock_guard<std::mutex> lock(infoLock);
                cache = v;
            }
        }
        std::lock_guard<std::mutex> lock(infoLock);
        return cache;
    }

    bool setChecked(double v, const char* what, const QString& unit, double& cache, QString* error,
                    void (*getBounds)(ArvCamera*, double*, double*, GError**),
                    void (*set)(ArvCamera*, double, GError**))
    {
        double lo = 0.0, hi = 0.0;
        if (!range(lo, hi, [&](double* a, double* b, GError** e) { getBounds(camera, a, b, e); })) {
            if (error)
                *error = lost.load() || !isOpen.load()
                    ? (lost.load() ? q->lostMessage() : CxAravisCamera::tr("No camera is open"))
                    : CxAravisCamera::tr("The camera has no %1 control").arg(CxAravisCamera::tr(what));
            return false;
        }
        if (!std::isfinite(v) || v < lo || v > hi) {
            if (error)
                *error = CxAravisCamera::tr("The camera's %1 goes from %2 to %3 %5, not %4 %5")
                             .arg(CxAravisCamera::tr(what)).arg(lo).arg(hi).arg(v).arg(unit).simplified()
                             .replace(QLatin1String(" ,"), QLatin1String(","));
            return false;
        }
        if (!control(error, [&](GError** e) { set(camera, v, e); }))
            return false;
        std::lock_guard<std::mutex> lock(infoLock);
        cache = v;
        return true;
    }
};

CxAravisCamera::CxAravisCamera() : CxImageSource(FlagProducesPictures), d(std::make_unique<Private>())
{
    d->q = this;
}

CxAravisCamera::~CxAravisCamera()
{
    close();
    d->joinReapers();
}

void CxAravisCamera::enableFakeInterface()
{
    std::lock_guard<std::mutex> lock(systemLock());
    arv_enable_interface("Fake");
}

QList<CxAravisCamera::SxDevice> CxAravisCamera::devices()
{
    std::lock_guard<std::mutex> lock(systemLock());
    arv_update_device_list();
    QList<SxDevice> list;
    const unsigned n = arv_get_n_devices();
    for (unsigned i = 0; i < n; ++i) {
        SxDevice dev;
        dev.id = text(arv_get_device_id(i));
        dev.vendor = text(arv_get_device_vendor(i));
        dev.model = text(arv_get_device_model(i));
        dev.serial = text(arv_get_device_serial_nbr(i));
        dev.address = text(arv_get_device_address(i));
        dev.protocol = text(arv_get_device_protocol(i));
        list.append(dev);
    }
    return list;
}

bool CxAravisCamera::open(const QString& deviceId, QString* error)
{
    close();
    const auto fail = [error](const QString& m) {
        if (error)
            *error = m;
        return false;
    };
    QString id = deviceId;
    if (id.isEmpty()) {
        const QList<SxDevice> all = devices();
        if (all.isEmpty())
            return fail(tr("No camera found"));
        id = all.first().id;
    }
    GError* e = nullptr;
    ArvCamera* cam = nullptr;
    {
        std::lock_guard<std::mutex> lock(systemLock());
        cam = arv_camera_new(id.toUtf8().constData(), &e);
    }
    if (!cam)
        return fail(tr("Cannot open the camera \"%1\": %2").arg(id, takeMessage(e)));

    const QString vendor = text(arv_camera_get_vendor_name(cam, nullptr));
    const QString model = text(arv_camera_get_model_name(cam, nullptr));
    const QString serial = text(arv_camera_get_device_serial_number(cam, nullptr));
    QString title = QStringLiteral("%1 %2").arg(vendor, model).simplified();
    if (!serial.isEmpty())
        title += QStringLiteral(" (%1)").arg(serial);
    if (title.isEmpty())
        title = id;

    // Values and names come from the same enumeration in the same order.
    QList<QPair<QString, guint32>> formats;
    guint nValues = 0, nNames = 0;
    gint64* values = arv_camera_dup_available_pixel_formats(cam, &nValues, nullptr);
    const char** names = arv_camera_dup_available_pixel_formats_as_strings(cam, &nNames, nullptr);
    for (guint i = 0; values && i < nValues; ++i) {
        const SxFormatMap* m = formatMap(guint32(values[i]));
        if (m)
            formats.append({names && nNames == nValues ? text(names[i]) : QString::fromLatin1(m->name), m->arv});
    }
    g_free(values);
    g_free(names);

    {
        std::lock_guard<std::mutex> lock(d->infoLock);
        d->camera = cam;
        d->id = id;
        d->title = title;
        d->formats = formats;
        d->lostMessage.clear();
        d->hasGain = arv_camera_is_feature_available(cam, "Gain", nullptr);
        d->exposure = arv_camera_is_exposure_time_available(cam, nullptr)
            ? arv_camera_get_exposure_time(cam, nullptr) : 0.0;
        d->gain = arv_camera_is_gain_available(cam, nullptr) ? arv_camera_get_gain(cam, nullptr) : 0.0;
        d->frameRate = arv_camera_is_frame_rate_available(cam, nullptr)
            ? arv_camera_get_frame_rate(cam, nullptr) : 0.0;
        d->streamExposure = float(d->exposure);
    }
    d->lost = false;
    d->delivered = d->incomplete = d->failed = d->dropped = 0;
    ArvDevice* device = arv_camera_get_device(cam);
    d->device = device;
    d->lostHandler = g_signal_connect(device, "control-lost", G_CALLBACK(&Private::onControlLost), d.get());
    d->isOpen = true;
    QString message;
    if (!d->refreshFormat(&message)) {
        close();
        return fail(tr("Cannot open the camera \"%1\": %2").arg(id, message));
    }
    return true;
}

void CxAravisCamera::close()
{
    if (!d->camera)
        return;
    if (d->stream && chain() && !chain()->stopped())
        chain()->stop();
    d->freeStream();
    ArvCamera* cam = d->camera;
    ArvDevice* device = d->device.exchange(nullptr);
    g_signal_handler_disconnect(device, d->lostHandler);
    d->lostHandler = 0;
    d->isOpen = false;
    {
        std::lock_guard<std::mutex> lock(d->infoLock);
        d->camera = nullptr;
        d->formats.clear();
        d->formatName.clear();
        d->format = 0;
        d->width = d->height = 0;
    }
    if (d->lost.load()) {
        d->reap({cam});
    } else {
        std::lock_guard<std::mutex> lock(d->deviceLock);
        g_object_unref(cam);
    }
}

bool CxAravisCamera::isOpen() const { return d->isOpen.load(); }

QString CxAravisCamera::deviceId() const
{
    std::lock_guard<std::mutex> lock(d->infoLock);
    return d->isOpen.load() ? d->id : QString();
}

QString CxAravisCamera::title() const
{
    std::lock_guard<std::mutex> lock(d->infoLock);
    return d->isOpen.load() ? d->title : tr("GenICam camera");
}

QStringList CxAravisCamera::pixelFormats() const
{
    std::lock_guard<std::mutex> lock(d->infoLock);
    QStringList names;
    for (const auto& f : d->formats)
        names.append(f.first);
    return names;
}

QString CxAravisCamera::pixelFormat() const
{
    std::lock_guard<std::mutex> lock(d->infoLock);
    return d->formatName;
}

bool CxAravisCamera::setPixelFormat(const QString& name, QString* error)
{
    if (d->stream) {
        if (error)
            *error = tr("The pixel format can only change while the camera is stopped");
        return false;
    }
    guint32 value = 0;
    {
        std::lock_guard<std::mutex> lock(d->infoLock);
        for (const auto& f : d->formats) {
            const SxFormatMap* m = formatMap(f.second);
            if (f.first.compare(name, Qt::CaseInsensitive) == 0
                || QString::fromLatin1(m->name).compare(name, Qt::CaseInsensitive) == 0)
                value = f.second;
        }
    }
    if (!value && d->isOpen.load() && !d->lost.load()) {
        if (error)
            *error = tr("The camera does not offer the pixel format \"%1\"; it offers %2")
                         .arg(name, pixelFormats().join(QStringLiteral(", ")));
        return false;
    }
    if (!d->control(error, [&](GError** e) { arv_camera_set_pixel_format(d->camera, ArvPixelFormat(value), e); }))
        return false;
    return d->refreshFormat(error);
}

bool CxAravisCamera::exposureRange(double& min, double& max) const
{
    return d->range(min, max, [&](double* a, double* b, GError** e) {
        if (arv_camera_is_exposure_time_available(d->camera, e))
            arv_camera_get_exposure_time_bounds(d->camera, a, b, e);
        else if (!*e)
            g_set_error(e, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_FEATURE_NOT_FOUND, "no exposure time");
    });
}

double CxAravisCamera::exposure() const
{
    return d->value(d->exposure, [&](GError** e) { return arv_camera_get_exposure_time(d->camera, e); });
}

bool CxAravisCamera::setExposure(double us, QString* error)
{
    if (!d->setChecked(us, QT_TR_NOOP("exposure time"), QStringLiteral("µs"), d->exposure, error,
                       &arv_camera_get_exposure_time_bounds, &arv_camera_set_exposure_time))
        return false;
    d->streamExposure = float(us);
    return true;
}

bool CxAravisCamera::gainRange(double& min, double& max) const
{
    return d->range(min, max, [&](double* a, double* b, GError** e) {
        if (arv_camera_is_gain_available(d->camera, e))
            arv_camera_get_gain_bounds(d->camera, a, b, e);
        else if (!*e)
            g_set_error(e, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_FEATURE_NOT_FOUND, "no gain");
    });
}

double CxAravisCamera::gain() const
{
    return d->value(d->gain, [&](GError** e) { return arv_camera_get_gain(d->camera, e); });
}

bool CxAravisCamera::setGain(double value, QString* error)
{
    return d->setChecked(value, QT_TR_NOOP("gain"), gainUnit(), d->gain, error, &arv_camera_get_gain_bounds,
                         &arv_camera_set_gain);
}

QString CxAravisCamera::gainUnit() const
{
    std::lock_guard<std::mutex> lock(d->infoLock);
    return d->hasGain ? QStringLiteral("dB") : QString();
}

bool CxAravisCamera::frameRateRange(double& min, double& max) const
{
    return d->range(min, max, [&](double* a, double* b, GError** e) {
        if (arv_camera_is_frame_rate_available(d->camera, e))
            arv_camera_get_frame_rate_bounds(d->camera, a, b, e);
        else if (!*e)
            g_set_error(e, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_FEATURE_NOT_FOUND, "no frame rate");
    });
}

double CxAravisCamera::frameRate() const
{
    return d->value(d->frameRate, [&](GError** e) { return arv_camera_get_frame_rate(d->camera, e); });
}

bool CxAravisCamera::setFrameRate(double hz, QString* error)
{
    static const auto set = [](ArvCamera* cam, double v, GError** e) {
        // Many cameras ignore the rate until its control is switched on.
        if (arv_camera_is_feature_available(cam, "AcquisitionFrameRateEnable", nullptr))
            arv_camera_set_boolean(cam, "AcquisitionFrameRateEnable", TRUE, nullptr);
        arv_camera_set_frame_rate(cam, v, e);
    };
    return d->setChecked(hz, QT_TR_NOOP("frame rate"), QStringLiteral("Hz"), d->frameRate, error,
                         &arv_camera_get_frame_rate_bounds, set);
}

CxAravisCamera::SxCounters CxAravisCamera::counters() const
{
    SxCounters c;
    c.delivered = d->delivered.load();
    c.incomplete = d->incomplete.load();
    c.failed = d->failed.load();
    c.dropped = d->dropped.load();
    return c;
}

bool CxAravisCamera::lost() const { return d->lost.load(); }

QString CxAravisCamera::lostMessage() const
{
    std::lock_guard<std::mutex> lock(d->infoLock);
    return d->lostMessage;
}

bool CxAravisCamera::sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta)
{
    if (!d->isOpen.load() || d->lost.load()) {
        setErrorMessage(d->lost.load() ? lostMessage() : tr("No camera is open"));
        return false;
    }
    QString error;
    if (!d->stream && !d->refreshFormat(&error)) {
        setErrorMessage(d->lost.load() ? lostMessage() : error);
        return false;
    }
    quint32 w = 0, h = 0;
    const SxFormatMap* m = nullptr;
    QString name;
    {
        std::lock_guard<std::mutex> lock(d->infoLock);
        m = formatMap(d->format);
        name = d->formatName;
        w = d->width;
        h = d->height;
    }
    if (!m) {
        setErrorMessage(tr("The camera's pixel format \"%1\" is not supported; choose one of %2")
                            .arg(name, pixelFormats().join(QStringLiteral(", "))));
        return false;
    }
    if (w == 0 || h == 0) {
        setErrorMessage(tr("The camera reports an empty picture size"));
        return false;
    }
    info = SxPicBufInfo();
    info.width = w;
    info.height = h;
    info.channels = m->channels;
    info.dataType = m->type;
    info.bitsPerSample = m->bits;
    info.storageFormat = DSF_PACKED;
    info.colorFilterArray = m->cfa;
    info.isColor = m->channels == 3;
    info.linePitch = quint32(info.packedLineBytes());
    if (meta) {
        *meta = CxImageMetadata();
        meta->setCameraName(title());
        meta->updateFromPicBufInfo(&info);
    }
    clearErrorMessage();
    return true;
}

void CxAravisCamera::setupStart()
{
    if (d->stream || !d->isOpen.load() || d->lost.load())
        return;
    SxPicBufInfo info;
    CxImageMetadata meta;
    if (!sourceFormat(info, &meta))
        return;
    {
        std::lock_guard<std::mutex> lock(d->infoLock);
        d->streamMap = formatMap(d->format);
    }
    d->streamInfo = info;
    d->streamMeta = meta;
    GError* e = nullptr;
    {
        std::lock_guard<std::mutex> lock(d->deviceLock);
        const guint payload = arv_camera_get_payload(d->camera, &e);
        if (!e)
            d->stream = arv_camera_create_stream(d->camera, nullptr, nullptr, &e);
        for (int i = 0; d->stream && i < StreamBuffers; ++i)
            arv_stream_push_buffer(d->stream, arv_buffer_new_allocate(payload));
        if (!e)
            arv_camera_set_acquisition_mode(d->camera, ARV_ACQUISITION_MODE_CONTINUOUS, &e);
        if (!e)
            arv_camera_start_acquisition(d->camera, &e);
    }
    if (e) {
        const QString m = d->failure(e);
        setErrorMessage(tr("The camera \"%1\" cannot start: %2").arg(title(), m));
        if (d->stream) {
            if (d->lost.load())
                d->reap({d->stream});
            else
                g_object_unref(d->stream);
            d->stream = nullptr;
        }
        return;
    }
    d->startMs = g_get_real_time() / 1000;
    d->failuresInRow = 0;
    d->lastGoodUs = g_get_monotonic_time();
    d->haveFirstId = false;
    d->idOffset = 0;
}

void CxAravisCamera::setupStop() { d->freeStream(); }

IxChainData* CxAravisCamera::grabFrame()
{
    Private& p = *d;
    if (!p.stream || p.lost.load())
        return nullptr;
    ArvBuffer* buffer = arv_stream_timeout_pop_buffer(p.stream, PopTimeoutUs);
    if (!buffer)
        return nullptr;
    const auto giveBack = [&](std::atomic<qint64>* counter) {
        arv_stream_push_buffer(p.stream, buffer);
        if (counter)
            ++*counter;
        return nullptr;
    };

    const ArvBufferStatus status = arv_buffer_get_status(buffer);
    const qint32 frameNumber = p.frameNumber(arv_buffer_get_frame_id(buffer));
    if (status != ARV_BUFFER_STATUS_SUCCESS) {
        const bool partial = status == ARV_BUFFER_STATUS_TIMEOUT || status == ARV_BUFFER_STATUS_MISSING_PACKETS
            || status == ARV_BUFFER_STATUS_WRONG_PACKET_ID || status == ARV_BUFFER_STATUS_ABORTED;
        giveBack(partial ? &p.incomplete : &p.failed);
        if (++p.failuresInRow >= FailuresToLose && g_get_monotonic_time() - p.lastGoodUs >= FailureWindowUs)
            p.markLost(tr("it delivers nothing but broken frames (%1 in a row)").arg(p.failuresInRow));
        return nullptr;
    }
    p.failuresInRow = 0;
    p.lastGoodUs = g_get_monotonic_time();

    // A picture that does not match what the chain negotiated is never
    // handed on, whatever the camera was switched to behind our back.
    const SxPicBufInfo& info = p.streamInfo;
    size_t size = 0;
    const uchar* data = static_cast<const uchar*>(arv_buffer_get_image_data(buffer, &size));
    gint xPad = 0, yPad = 0;
    arv_buffer_get_image_padding(buffer, &xPad, &yPad);
    const quint64 srcPitch = info.packedLineBytes() + quint64(std::max(xPad, 0));
    if (!data || guint32(arv_buffer_get_image_pixel_format(buffer)) != p.streamMap->arv
        || arv_buffer_get_image_width(buffer) != gint(info.width)
        || arv_buffer_get_image_height(buffer) != gint(info.height)
        || size < srcPitch * (info.height - 1) + info.packedLineBytes())
        return giveBack(&p.failed);

    SxPicBuf pic;
    if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, pic, info, false))
        return giveBack(&p.dropped);
    if (info.dataType == IDT_UINT16)
        copyRows<quint16>(data, srcPitch, pic, info.bitsPerSample, false);
    else
        copyRows<quint8>(data, srcPitch, pic, info.bitsPerSample, info.isColor);

    const guint64 systemNs = arv_buffer_get_system_timestamp(buffer);
    giveBack(nullptr);
    const qint64 ms = systemNs ? qint64(systemNs / 1000000) : g_get_real_time() / 1000;
    pic.frameNumber = frameNumber;
    pic.exposureTimeUs = p.streamExposure.load();
    pic.timestampMs = quint32(std::max<qint64>(ms - p.startMs, 0));
    CxImageMetadata meta = p.streamMeta;
    meta.setTimestamp(QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC));
    auto* packet = new CxImageData;
    packet->setPicBuf(pic);
    packet->setMetadata(&meta);
    packet->setLiveData(true);
    ++p.delivered;
    return packet;
}
