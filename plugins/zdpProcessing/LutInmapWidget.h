#pragma once
#include <QtWidgets/QWidget>

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QSpinBox;
class CxLutInmapCnbl;

// Configuration panel of the LUT mapping node. Every change is written to the
// node at once, around a stop and start of a running chain, and drops the
// node's table. The Min and Max ranges follow the significant bits of the
// input the chain negotiated last; before the node has seen an input they
// span 16 bits, the widest pictures a table exists for, so that opening the
// panel early never cuts a stored window down. The panel does not follow
// changes the node makes itself (the automatic window) while it is open.
class CxLutInmapCnblWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CxLutInmapCnblWidget(CxLutInmapCnbl* node);
    ~CxLutInmapCnblWidget() override;

    // Width and height of the pseudo-colour previews in the combo box.
    static constexpr int IconWidth = 80;
    static constexpr int IconHeight = 16;

private slots:
    void enableControls();
    void sendToChainable();

private:
    // The controls' values into the node; the caller restarts the chain.
    void storeSettings();
    void fillPseudocolorCombo();

    CxLutInmapCnbl* m_node;
    QCheckBox* m_chkAuto = nullptr;
    QLabel* m_lblTolerance = nullptr;
    QDoubleSpinBox* m_spinTolerance = nullptr;
    QLabel* m_lblPerMille = nullptr;
    QLabel* m_lblMin = nullptr;
    QSpinBox* m_spinMin = nullptr;
    QLabel* m_lblGamma = nullptr;
    QDoubleSpinBox* m_spinGamma = nullptr;
    QLabel* m_lblMax = nullptr;
    QSpinBox* m_spinMax = nullptr;
    QCheckBox* m_chkMapToRgb = nullptr;
    QLabel* m_lblPseudo = nullptr;
    QComboBox* m_cmbPseudo = nullptr;
};
