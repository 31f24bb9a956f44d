#include "SourcePanel.h"

#include "AravisCamera.h"
#include "FilePlayer.h"
#include "ViewerSession.h"

#include <CxSyntheticCamera.h>
#include <InputSource.h>
#include <SxCameraDescription.h>

#include <QtWidgets/QCheckBox>
#include <QtWidgets/QComboBox>
#include <QtWidgets/QDoubleSpinBox>
#include <QtWidgets/QFileDialog>
#include <QtWidgets/QFormLayout>
#include <QtWidgets/QHBoxLayout>
#include <QtWidgets/QLabel>
#include <QtWidgets/QLineEdit>
#include <QtWidgets/QMessageBox>
#include <QtWidgets/QPushButton>
#include <QtWidgets/QStackedWidget>
#include <QtWidgets/QVBoxLayout>

namespace {

enum ExKind { KindCamera, KindFiles, KindGenicam };

CxImageSource* makeCamera(const SxViewerOptions& options, QString* error, ExExitCode* status)
{
    SxCameraDescription described;
    if (!options.run.input.cameraFile.isEmpty() && !described.loadFromFile(options.run.input.cameraFile, error)) {
        *status = ExitInput;
        return nullptr;
    }
    CxSyntheticCamera::SxConfig config;
    if (!CxInputFactory::cameraConfig(options.run.input, described.isEmpty() ? nullptr : &described, config, error)) {
        *status = ExitUsage;
        return nullptr;
    }
    // A viewer's camera runs until stopped, at a camera's pace.
    config.frameLimit = options.run.input.frames;
    config.fps = options.fps;
    return new CxSyntheticCamera(config);
}

CxImageSource* makeGenicam(const QString& id, QString* error, ExExitCode* status)
{
    if (id == QLatin1String("fake"))
        CxAravisCamera::enableFakeInterface();
    QString device = id == QLatin1String("first") ? QString() : id;
    if (id == QLatin1String("fake")) {
        for (const CxAravisCamera::SxDevice& d : CxAravisCamera::devices())
            if (d.protocol.contains(QLatin1String("Fake"), Qt::CaseInsensitive) || d.id.contains(QLatin1String("Fake")))
                device = d.id;
    }
    auto* camera = new CxAravisCamera;
    if (!camera->open(device, error)) {
        delete camera;
        *status = ExitInput;
        return nullptr;
    }
    return camera;
}

QDoubleSpinBox* spin(QWidget* parent, double low, double high, int decimals, const QString& suffix)
{
    auto* box = new QDoubleSpinBox(parent);
    box->setRange(low, high);
    box->setDecimals(decimals);
    box->setSuffix(suffix);
    box->setKeyboardTracking(false);
    return box;
}

} // namespace

CxImageSource* CxSourcePanel::makeSource(const SxViewerOptions& options, const SxCameraDescription* chainInput,
                                         QString* error, ExExitCode* status)
{
    if (!options.genicam.isEmpty())
        return makeGenicam(options.genicam, error, status);
    if (!options.run.input.readsFiles())
        return makeCamera(options, error, status);
    CxFilePlayer* player = CxFilePlayer::create(options.run.input, chainInput, error, status);
    if (!player)
        return nullptr;
    player->setLoop(options.loop);
    player->setFrameRate(options.fps);
    return player;
}

CxSourcePanel::CxSourcePanel(CxViewerSession* session, QWidget* parent) : QWidget(parent), m_session(session)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(4, 4, 4, 4);
    m_kind = new QComboBox(this);
    m_kind->addItems({tr("Built-in camera"), tr("Picture files"), tr("GenICam camera")});
    layout->addWidget(m_kind);
    m_pages = new QStackedWidget(this);
    m_pages->addWidget(buildCameraPage());
    m_pages->addWidget(buildFilesPage());
    m_pages->addWidget(buildGenicamPage());
    layout->addWidget(m_pages);
    layout->addStretch(1);
    connect(m_kind, &QComboBox::currentIndexChanged, m_pages, &QStackedWidget::setCurrentIndex);
    onSourceChanged();
}

QWidget* CxSourcePanel::buildCameraPage()
{
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    m_layout = new QComboBox(page);
    m_layout->addItems(CxInputFactory::cameraKinds());
    m_layout->setToolTip(tr("The picture the camera makes, as qlarrun's --camera"));
    form->addRow(tr("Picture"), m_layout);
    m_size = new QLineEdit(QStringLiteral("640x480"), page);
    form->addRow(tr("Size"), m_size);
    m_cameraFps = spin(page, 0.0, 1000.0, 1, tr(" fps"));
    m_cameraFps->setValue(30.0);
    m_cameraFps->setSpecialValueText(tr("as fast as the chain takes"));
    form->addRow(tr("Rate"), m_cameraFps);
    auto* use = new QPushButton(tr("Use this camera"), page);
    connect(use, &QPushButton::clicked, this, &CxSourcePanel::useCamera);
    form->addRow(use);
    return page;
}

QWidget* CxSourcePanel::buildFilesPage()
{
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    auto* openRow = new QHBoxLayout;
    auto* files = new QPushButton(tr("Files…"), page);
    auto* folder = new QPushButton(tr("Folder…"), page);
    openRow->addWidget(files);
    openRow->addWidget(folder);
    form->addRow(openRow);
    connect(files, &QPushButton::clicked, this, [this] {
        const QStringList paths = QFileDialog::getOpenFileNames(this, tr("Play picture files"), QString(),
            tr("Pictures (*.tif *.tiff *.png *.pgm *.ppm *.pnm *.raw);;All files (*)"));
        if (!paths.isEmpty())
            openFiles(paths);
    });
    connect(folder, &QPushButton::clicked, this, [this] {
        const QString path = QFileDialog::getExistingDirectory(this, tr("Play the pictures of a folder"));
        if (!path.isEmpty())
            openFiles({path});
    });
    m_filesLabel = new QLabel(tr("nothing open"), page);
    m_filesLabel->setWordWrap(true);
    form->addRow(m_filesLabel);
    auto* controls = new QHBoxLayout;
    m_play = new QPushButton(tr("Pause"), page);
    m_play->setCheckable(true);
    auto* step = new QPushButton(tr("Step"), page);
    m_loop = new QCheckBox(tr("Loop"), page);
    controls->addWidget(m_play);
    controls->addWidget(step);
    controls->addWidget(m_loop);
    form->addRow(controls);
    m_playerFps = spin(page, 0.0, 1000.0, 1, tr(" fps"));
    m_playerFps->setValue(30.0);
    m_playerFps->setSpecialValueText(tr("as fast as the chain takes"));
    form->addRow(tr("Rate"), m_playerFps);
    m_position = new QLabel(page);
    form->addRow(tr("Frame"), m_position);
    auto player = [this] { return qobject_cast<CxFilePlayer*>(m_session->source()); };
    connect(m_play, &QPushButton::toggled, this, [this, player](bool paused) {
        m_play->setText(paused ? tr("Play") : tr("Pause"));
        if (CxFilePlayer* p = player()) {
            if (paused) {
                p->pause();
            } else {
                p->play();
                if (!m_session->isRunning())
                    m_session->start();
            }
        }
    });
    connect(step, &QPushButton::clicked, this, [this, player] {
        if (CxFilePlayer* p = player()) {
            m_play->setChecked(true);
            p->step();
            if (!m_session->isRunning())
                m_session->start();
        }
    });
    connect(m_loop, &QCheckBox::toggled, this, [player](bool on) {
        if (CxFilePlayer* p = player())
            p->setLoop(on);
    });
    connect(m_playerFps, &QDoubleSpinBox::valueChanged, this, [player](double fps) {
        if (CxFilePlayer* p = player())
            p->setFrameRate(fps);
    });
    return page;
}

QWidget* CxSourcePanel::buildGenicamPage()
{
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    auto* deviceRow = new QHBoxLayout;
    m_devices = new QComboBox(page);
    m_devices->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    auto* refresh = new QPushButton(tr("Find"), page);
    refresh->setToolTip(tr("Look for cameras on every interface (and the library's test camera)"));
    deviceRow->addWidget(m_devices, 1);
    deviceRow->addWidget(refresh);
    form->addRow(tr("Camera"), deviceRow);
    connect(refresh, &QPushButton::clicked, this, &CxSourcePanel::refreshDevices);
    m_openCamera = new QPushButton(tr("Open"), page);
    connect(m_openCamera, &QPushButton::clicked, this, &CxSourcePanel::toggleGenicam);
    form->addRow(m_openCamera);
    m_pixelFormat = new QComboBox(page);
    form->addRow(tr("Pixel format"), m_pixelFormat);
    m_exposure = spin(page, 0.0, 1e8, 1, tr(" µs"));
    form->addRow(tr("Exposure"), m_exposure);
    m_gain = spin(page, -100.0, 100.0, 2, tr(" dB"));
    form->addRow(tr("Gain"), m_gain);
    m_genicamFps = spin(page, 0.0, 10000.0, 2, tr(" fps"));
    form->addRow(tr("Rate"), m_genicamFps);
    m_genicamState = new QLabel(page);
    m_genicamState->setWordWrap(true);
    form->addRow(m_genicamState);
    auto camera = [this] { return qobject_cast<CxAravisCamera*>(m_session->source()); };
    // Controls act while frames flow; the pixel format changes the picture
    // format, so it goes through stop, set, start.
    connect(m_pixelFormat, &QComboBox::textActivated, this, [this, camera](const QString& format) {
        CxAravisCamera* c = camera();
        if (!c)
            return;
        const bool wasRunning = m_session->isRunning();
        m_session->stop();
        QString error;
        if (!c->setPixelFormat(format, &error))
            m_genicamState->setText(error);
        if (wasRunning)
            m_session->start();
    });
    const auto control = [this, camera](QDoubleSpinBox* box, bool (CxAravisCamera::*set)(double, QString*)) {
        connect(box, &QDoubleSpinBox::valueChanged, this, [this, camera, set](double v) {
            QString error;
            if (CxAravisCamera* c = camera(); c && !(c->*set)(v, &error))
                m_genicamState->setText(error);
        });
    };
    control(m_exposure, &CxAravisCamera::setExposure);
    control(m_gain, &CxAravisCamera::setGain);
    control(m_genicamFps, &CxAravisCamera::setFrameRate);
    return page;
}

void CxSourcePanel::showOptions(const SxViewerOptions& options)
{
    m_options = options;
    const SxInputRequest& input = options.run.input;
    m_layout->setCurrentText(input.camera);
    m_size->setText(QStringLiteral("%1x%2").arg(input.width).arg(input.height));
    m_cameraFps->setValue(options.fps);
    m_playerFps->setValue(options.fps);
    m_loop->setChecked(options.loop);
    onSourceChanged();
}

void CxSourcePanel::useSource(CxImageSource* source)
{
    m_session->setSource(source);
    if (!m_session->isRunning())
        m_session->start();
    onSourceChanged();
}

void CxSourcePanel::onSourceChanged()
{
    CxImageSource* source = m_session->source();
    if (auto* player = qobject_cast<CxFilePlayer*>(source)) {
        m_kind->setCurrentIndex(KindFiles);
        m_filesLabel->setText(player->title());
        connect(player, &CxFilePlayer::positionChanged, this, [this](qint64 index, qint64 count) {
            m_position->setText(tr("%1 of %2").arg(index + 1).arg(count));
        }, Qt::QueuedConnection);
    } else if (qobject_cast<CxAravisCamera*>(source)) {
        m_kind->setCurrentIndex(KindGenicam);
        showGenicamControls();
    } else if (auto* camera = qobject_cast<CxSyntheticCamera*>(source)) {
        m_kind->setCurrentIndex(KindCamera);
        const CxSyntheticCamera::SxConfig config = camera->config();
        static const char* const layouts[] = {"mono", "bayer", "rgb", "rgba", "rgbnir", "hsi"};
        if (size_t(config.layout) < std::size(layouts))
            m_layout->setCurrentText(QLatin1String(layouts[config.layout])
                                     + (config.dataType == IDT_UINT16 ? QLatin1String("16") : QLatin1String("8")));
        m_size->setText(QStringLiteral("%1x%2").arg(config.width).arg(config.height));
        m_cameraFps->setValue(config.fps);
    }
}

void CxSourcePanel::useCamera()
{
    SxViewerOptions options = m_options;
    options.genicam.clear();
    options.run.input.inputs.clear();
    options.run.input.camera = m_layout->currentText();
    if (!CxCommandLine::parseSize(m_size->text(), options.run.input.width, options.run.input.height)) {
        QMessageBox::warning(this, tr("Built-in camera"), tr("%1: expected WIDTHxHEIGHT").arg(m_size->text()));
        return;
    }
    options.fps = m_cameraFps->value();
    QString error;
    ExExitCode status = ExitOk;
    if (CxImageSource* source = makeSource(options, nullptr, &error, &status))
        useSource(source);
    else
        QMessageBox::warning(this, tr("Built-in camera"), error);
}

void CxSourcePanel::openFiles(const QStringList& inputs)
{
    SxViewerOptions options = m_options;
    options.genicam.clear();
    options.run.input.inputs = inputs;
    options.fps = m_playerFps->value();
    options.loop = m_loop->isChecked();
    QString error;
    ExExitCode status = ExitOk;
    const SxCameraDescription chainInput = m_session->chainInput();
    if (CxImageSource* source = makeSource(options, &chainInput, &error, &status))
        useSource(source);
    else
        QMessageBox::warning(this, tr("Picture files"), error);
}

void CxSourcePanel::refreshDevices()
{
    CxAravisCamera::enableFakeInterface();
    m_devices->clear();
    for (const CxAravisCamera::SxDevice& d : CxAravisCamera::devices()) {
        const QString text = QStringLiteral("%1 %2 (%3, %4)").arg(d.vendor, d.model, d.protocol,
                                                                  d.address.isEmpty() ? d.serial : d.address);
        m_devices->addItem(text.simplified(), d.id);
    }
    if (m_devices->count() == 0)
        m_genicamState->setText(tr("No camera found"));
}

void CxSourcePanel::toggleGenicam()
{
    if (auto* camera = qobject_cast<CxAravisCamera*>(m_session->source()); camera && camera->isOpen()) {
        m_session->stop();
        camera->close();
        showGenicamControls();
        return;
    }
    if (m_devices->count() == 0)
        refreshDevices();
    if (m_devices->count() == 0)
        return;
    QString error;
    ExExitCode status = ExitOk;
    CxImageSource* source = makeGenicam(m_devices->currentData().toString(), &error, &status);
    if (!source) {
        m_genicamState->setText(error);
        return;
    }
    useSource(source);
}

void CxSourcePanel::showGenicamControls()
{
    auto* camera = qobject_cast<CxAravisCamera*>(m_session->source());
    const bool open = camera && camera->isOpen();
    m_openCamera->setText(open ? tr("Close") : tr("Open"));
    for (QWidget* w : std::initializer_list<QWidget*>{m_pixelFormat, m_exposure, m_gain, m_genicamFps})
        w->setEnabled(open);
    if (!open) {
        m_genicamState->setText(camera ? tr("closed") : QString());
        return;
    }
    m_genicamState->setText(camera->title());
    {
        const QSignalBlocker blocker(m_pixelFormat);
        m_pixelFormat->clear();
        m_pixelFormat->addItems(camera->pixelFormats());
        m_pixelFormat->setCurrentText(camera->pixelFormat());
    }
    const auto show = [](QDoubleSpinBox* box, bool ok, double low, double high, double value) {
        const QSignalBlocker blocker(box);
        box->setEnabled(ok);
        if (ok) {
            box->setRange(low, high);
            box->setValue(value);
        }
    };
    double low = 0, high = 0;
    bool ok = camera->exposureRange(low, high);
    show(m_exposure, ok, low, high, camera->exposure());
    ok = camera->gainRange(low, high);
    show(m_gain, ok, low, high, camera->gain());
    ok = camera->frameRateRange(low, high);
    show(m_genicamFps, ok, low, high, camera->frameRate());
}
