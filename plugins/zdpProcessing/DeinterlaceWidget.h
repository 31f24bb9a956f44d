#pragma once
#include <QtWidgets/QWidget>

#include <array>

class QRadioButton;
class QVBoxLayout;
class CxDeinterlaceCnbl;

// Configuration panel of the deinterlace node: one radio button per transform.
// It writes the choice straight to the node and does not follow changes made
// elsewhere (quick buttons) while it is open.
class CxDeinterlaceWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxDeinterlaceWidget(CxDeinterlaceCnbl* node);
    ~CxDeinterlaceWidget() override;

private slots:
    void on_radioClicked();

private:
    QRadioButton* createTransformItem(QVBoxLayout* layout, const QString& text, bool checked);

    CxDeinterlaceCnbl* m_node;
    // Indexed by transform value.
    std::array<QRadioButton*, 4> m_radios{};
};
