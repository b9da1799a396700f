// The image-operations wrapper's functions by name, for a FakeDynamicLoader library that
// serves the real wrapper (linked into the test) with one function left out on demand.
#pragma once

#include <map>
#include <string>

#include "platform/opencv_wrapper/tavo_video_opencv_wrapper.h"

#define WRAPPER_SYMBOL(name) \
  { #name, reinterpret_cast < void*>(&::name) }

inline std::map<std::string, void*> WrapperSymbols(const std::string& omit = "") {
  std::map<std::string, void*> symbols = {
      WRAPPER_SYMBOL(CMatCreateEmpty),
      WRAPPER_SYMBOL(CMatDestroy),
      WRAPPER_SYMBOL(CImread),
      WRAPPER_SYMBOL(C_IMREAD_COLOR),
      WRAPPER_SYMBOL(CMatEmpty),
      WRAPPER_SYMBOL(CSizeCreate),
      WRAPPER_SYMBOL(CSizeDestroy),
      WRAPPER_SYMBOL(CResize),
      WRAPPER_SYMBOL(CMatRows),
      WRAPPER_SYMBOL(CMatCols),
      WRAPPER_SYMBOL(CMatData),
      WRAPPER_SYMBOL(CMatCreate),
      WRAPPER_SYMBOL(CMatCreateFromData),
      WRAPPER_SYMBOL(CMatCreateFromDataStep),
      WRAPPER_SYMBOL(CMatCreateFromScalar),
      WRAPPER_SYMBOL(CScalarCreate),
      WRAPPER_SYMBOL(CScalarDestroy),
      WRAPPER_SYMBOL(CPoint2fCreate),
      WRAPPER_SYMBOL(CPoint2fDestroy),
      WRAPPER_SYMBOL(CRectCreate),
      WRAPPER_SYMBOL(CRectDestroy),
      WRAPPER_SYMBOL(CMatStep),
      WRAPPER_SYMBOL(CMatChannels),
      WRAPPER_SYMBOL(CMatConvertTo),
      WRAPPER_SYMBOL(CMatPow),
      WRAPPER_SYMBOL(CMatMultiplyScalar),
      WRAPPER_SYMBOL(CMatCopy),
      WRAPPER_SYMBOL(CMatCopyData),
      WRAPPER_SYMBOL(CGetRotationMatrix2d),
      WRAPPER_SYMBOL(CWarpAffine),
      WRAPPER_SYMBOL(CImwrite),
      WRAPPER_SYMBOL(CMatGetRoi),
      WRAPPER_SYMBOL(CGaussianBlur),
      WRAPPER_SYMBOL(CFlip),
      WRAPPER_SYMBOL(C_CV_8UC1),
      WRAPPER_SYMBOL(C_CV_8UC3),
      WRAPPER_SYMBOL(C_CV_8UC4),
      WRAPPER_SYMBOL(C_CV_32F),
      WRAPPER_SYMBOL(C_CV_32FC1),
      WRAPPER_SYMBOL(C_INTER_LINEAR),
  };
  symbols.erase(omit);
  return symbols;
}

#undef WRAPPER_SYMBOL
