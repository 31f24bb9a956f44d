#pragma once
#include "ViewerCommandLine.h"

#include <QtCore/QPointer>
#include <QtWidgets/QWidget>

class CxAravisCamera;
class CxFilePlayer;
class CxImageSource;
class CxViewerSession;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QStackedWidget;
struct SxCameraDescription;

// Where frames come from: the built-in camera (every layout qlarrun has), a
// player over picture files, or a GenICam camera. Choosing one hands a new
// source to the session, which restarts a running chain on it. The controls
// of the current source (play, pause, step, loop, frame rate; exposure, gain
// and frame rate of a camera) act on it while frames flow.
class CxSourcePanel : public QWidget
{
    Q_OBJECT
public:
    explicit CxSourcePanel(CxViewerSession* session, QWidget* parent = nullptr);

    // The source the options ask for; null with a message and an exit
    // status (usage, input) when it cannot be made or opened.
    static CxImageSource* makeSource(const SxViewerOptions& options, const SxCameraDescription* chainInput,
                                     QString* error, ExExitCode* status);
    // Shows the controls of the source made from these options.
    void showOptions(const SxViewerOptions& options);

private:
    QWidget* buildCameraPage();
    QWidget* buildFilesPage();
    QWidget* buildGenicamPage();
    void useCamera();
    void openFiles(const QStringList& inputs);
    void refreshDevices();
    void toggleGenicam();
    void showGenicamControls();
    void useSource(CxImageSource* source);
    void onSourceChanged();

    CxViewerSession* m_session;
    SxViewerOptions m_options;
    QComboBox* m_kind = nullptr;
    QStackedWidget* m_pages = nullptr;

    QComboBox* m_layout = nullptr;
    QLineEdit* m_size = nullptr;
    QDoubleSpinBox* m_cameraFps = nullptr;

    QLabel* m_filesLabel = nullptr;
    QPushButton* m_play = nullptr;
    QCheckBox* m_loop = nullptr;
    QDoubleSpinBox* m_playerFps = nullptr;
    QLabel* m_position = nullptr;

    QComboBox* m_devices = nullptr;
    QPushButton* m_openCamera = nullptr;
    QComboBox* m_pixelFormat = nullptr;
    QDoubleSpinBox* m_exposure = nullptr;
    QDoubleSpinBox* m_gain = nullptr;
    QDoubleSpinBox* m_genicamFps = nullptr;
    QLabel* m_genicamState = nullptr;
};
