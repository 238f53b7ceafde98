// Umbrella header: every public header of the kel library.
#pragma once

#include "kel/core/enumerate.h"
#include "kel/core/locale.h"
#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/text.h"
#include "kel/core/types.h"
#include "kel/core/wexception.h"
#include "kel/image/color.h"
#include "kel/image/dds.h"
#include "kel/image/image.h"
#include "kel/image/image_util.h"
#include "kel/tiles/tile_coords.h"
#include "kel/tiles/tile_set_info.h"
