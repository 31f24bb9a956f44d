#pragma once
#include <QtWidgets/QWidget>

#include <memory>

class CxRotateImageCnbl;
class Ui_CxRotateConfigurationWidget;

// Configuration panel of the rotate node: two radio buttons for the
// direction. A click sets the node at once, restarting a running chain; the
// panel shows the direction the node had when it was made and does not follow
// quick buttons pressed while it is open.
class CxRotateConfigurationWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxRotateConfigurationWidget(CxRotateImageCnbl* node, QWidget* parent = nullptr);
    ~CxRotateConfigurationWidget() override;

private slots:
    // Connected by name when the form is set up.
    void on_clockButton_clicked(bool checked);
    void on_counterClockButton_clicked(bool checked);

private:
    CxRotateImageCnbl* m_node;
    std::unique_ptr<Ui_CxRotateConfigurationWidget> m_ui;
};
