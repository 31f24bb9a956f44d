#pragma once
#include "IxChainData.h"
#include "SxPicBuf.h"
#include "CxImageMetadata.h"

// An image packet: one picture and its description. The packet owns the
// picture it was given with setPicBuf and gives its memory back when deleted.
class QLARCORE_EXPORT CxImageData : public IxChainData
{
    Q_OBJECT
public:
    CxImageData();
    ~CxImageData() override;

    // Takes over pic; a picture the packet held before is released first.
    void setPicBuf(const SxPicBuf& pic);
    // Hands the picture to the caller, who then owns its memory.
    SxPicBuf takePicBuf();

    virtual SxPicBuf* picBuf();
    virtual const SxPicBuf* picBuf() const;
    virtual CxImageMetadata* metadata();
    virtual const CxImageMetadata* metadata() const;
    // Copies *meta into the packet; null resets the description.
    virtual void setMetadata(const CxImageMetadata* meta);

private:
    SxPicBuf m_pic;
    CxImageMetadata m_meta;
};
