// Converter entry points behind the dispatcher.
#pragma once

#include "conv/conv.h"

namespace kivcam::conv {

// Kinds 9, 10, 12 and 14; width and height at least 2.
void BayerConvert(const ConvParams& p, const ConvReq& r, bool out24);

// Every other kind; kinds without a converter write nothing.
void LineConvert(const ConvParams& p, const ConvReq& r, bool out24);

// Team size for a parallel conversion (1 when not parallel).
int TeamSize(const ConvParams& p);

}  // namespace kivcam::conv
