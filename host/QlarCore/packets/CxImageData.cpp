#include "CxImageData.h"
#include "CxPicBufAPI.h"

CxImageData::CxImageData() = default;

CxImageData::~CxImageData()
{
    CxPicBufAPI::FreePicBuf(m_pic, false);
}

void CxImageData::setPicBuf(const SxPicBuf& pic)
{
    if (m_pic.memBlock && m_pic.memBlock == pic.memBlock) {
        m_pic = pic;  // the same memory described anew
        return;
    }
    CxPicBufAPI::FreePicBuf(m_pic, false);
    m_pic = pic;
}

SxPicBuf CxImageData::takePicBuf()
{
    SxPicBuf out = m_pic;
    m_pic.data = nullptr;
    m_pic.memBlock = nullptr;
    m_pic.memCapacity = 0;
    m_pic.memOrigin = SxPicBuf::MemNone;
    return out;
}

SxPicBuf* CxImageData::picBuf() { return &m_pic; }
const SxPicBuf* CxImageData::picBuf() const { return &m_pic; }
CxImageMetadata* CxImageData::metadata() { return &m_meta; }
const CxImageMetadata* CxImageData::metadata() const { return &m_meta; }

void CxImageData::setMetadata(const CxImageMetadata* meta)
{
    m_meta = meta ? *meta : CxImageMetadata();
}
