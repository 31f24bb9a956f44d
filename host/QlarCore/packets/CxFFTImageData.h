#pragma once
#include "CxImageData.h"

// A spectrum packet: the real and imaginary parts of a 2D transform (two
// one-channel pictures of equal size holding 32-bit floats) and, optionally,
// the picture that was transformed.
//
// The parts hold floats whatever their format says. FFT 2D announces its
// output as 32-bit integers (data type 5), because the viewer it was made for
// sizes and labels its pool pictures by that format, and writes floats into
// them; our consumers (writers, the viewer, statistics) read both parts
// through floatView(), never by the type field.
//
// To every consumer that only knows CxImageData the packet is the real part:
// picBuf() answers it with the format the producing node announced. The
// imaginary part and the source are reached through this class.
//
// Ownership follows setPicBuf: the packet takes over all the pictures it is
// given and gives pool pictures back to their pool and heap pictures to the
// heap when it is deleted or given new ones; borrowed (wrapped) memory is only
// described. The source is taken over as well, not copied, so keeping it costs
// nothing per frame; hand it over from a packet that lets go of it
// (CxImageData::takePicBuf), never a picture that another packet still holds.
// A picture handed in twice (the same memory as another part) is kept only
// once and described by the other.
class QLARCORE_EXPORT CxFFTImageData : public CxImageData
{
    Q_OBJECT
public:
    CxFFTImageData();
    ~CxFFTImageData() override;

    // Takes over re, im and, when given, *source; pictures held before are
    // released first unless they are the same memory.
    void setPicBufReIm(const SxPicBuf& re, const SxPicBuf& im, const SxPicBuf* source);

    SxPicBuf* picBufRe() { return picBuf(); }
    const SxPicBuf* picBufRe() const { return picBuf(); }
    SxPicBuf* picBufIm() { return &m_im; }
    const SxPicBuf* picBufIm() const { return &m_im; }
    // A part as what it holds: the same pixels described as 32-bit floats,
    // owning nothing (freeing it frees nothing).
    static SxPicBuf floatView(const SxPicBuf& part);
    // Null when the packet carries no source picture.
    SxPicBuf* sourcePicBuf() { return m_hasSource ? &m_source : nullptr; }
    const SxPicBuf* sourcePicBuf() const { return m_hasSource ? &m_source : nullptr; }

private:
    SxPicBuf m_im;
    SxPicBuf m_source;
    bool m_hasSource = false;
};
