// Lets code written against GenApi's names compile against this engine where
// the shapes match (source compatibility only; the binary layout differs).
#pragma once

#include "kivgenapi/KivGenApi.h"

namespace GenApi = KivGenApi;
namespace GenICam = KivGenApi;
