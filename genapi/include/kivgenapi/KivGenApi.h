// Everything an application needs from the node-map engine.
#pragma once

#include "kivgenapi/EventAdapter.h"
#include "kivgenapi/Exception.h"
#include "kivgenapi/Interfaces.h"
#include "kivgenapi/NodeMapRef.h"
#include "kivgenapi/Pointer.h"
#include "kivgenapi/Types.h"
