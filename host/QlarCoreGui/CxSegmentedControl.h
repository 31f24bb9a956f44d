#pragma once
#include "QlarCoreGuiExport.h"

#include <QtWidgets/QWidget>

class QButtonGroup;
class QHBoxLayout;
class QPushButton;

// A row of mutually exclusive push segments. selectedSegmentChanged() is
// emitted when the user picks another segment, not when a program selects one
// (so a panel can show a node's setting without writing it back).
class QLARCOREGUI_EXPORT CxSegmentedControl : public QWidget
{
    Q_OBJECT
public:
    explicit CxSegmentedControl(QWidget* parent = nullptr);

    void setSegmentCount(int count);
    int segmentCount() const;
    void setSegmentText(int index, const QString& text);
    QString segmentText(int index) const;
    // The spelling is the host's established API. An index outside the
    // segments clears the selection.
    void setSelecedSegment(int index);
    int selectedIndex() const;  // -1 when none is selected

signals:
    void selectedSegmentChanged();

private:
    QHBoxLayout* m_layout;
    QButtonGroup* m_group;
    QList<QPushButton*> m_buttons;
};
