// A free-standing conversion engine the application holds as an HCTBL.
#pragma once

#include "conv/conv.h"

namespace kivcam::core {

class CConvHandle {
 public:
  CConvHandle(const conv::ConvMode& mode, const conv::YuvCoef& coef) : engine(mode, coef) {}
  conv::CConv engine;
};

}  // namespace kivcam::core
