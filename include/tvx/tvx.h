/* The whole tvx interface. */
#ifndef TVX_TVX_H
#define TVX_TVX_H

#include "tvx/abort.h"
#include "tvx/atlink.h"
#include "tvx/camera.h"
#include "tvx/config.h"
#include "tvx/cs71.h"
#include "tvx/csp.h"
#include "tvx/error.h"
#include "tvx/gain.h"
#include "tvx/image.h"
#include "tvx/list.h"
#include "tvx/memory.h"
#include "tvx/ports.h"
#include "tvx/readout.h"
#include "tvx/report.h"
#include "tvx/rs232.h"
#include "tvx/sections.h"
#include "tvx/server.h"
#include "tvx/twenty.h"
#include "tvx/types.h"
#include "tvx/values.h"

#endif
