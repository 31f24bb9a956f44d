#pragma once
#include "QlarCoreExport.h"
#include <QtCore/QObject>

// Everything that travels along a chain. A packet is owned by exactly one
// party at a time: the source that made it, the chain while it is queued, the
// node whose processData it was handed to, and finally whoever takes the
// chain's output. Packets are QObjects so that nodes can recognise their class
// with qobject_cast and the chain can notice when a node freed one.
class QLARCORE_EXPORT IxChainData : public QObject
{
    Q_OBJECT
public:
    ~IxChainData() override;

    // True for frames that a live source (a camera) delivered, false for
    // frames read from files or pushed by a program. Accumulating nodes do not
    // hand out pass-through pictures for live frames, since the next frame
    // follows at once; a still picture would otherwise never show anything.
    virtual bool isLiveData() const { return m_live; }
    void setLiveData(bool live) { m_live = live; }

protected:
    IxChainData() = default;

private:
    bool m_live = false;
};
