#pragma once
// The inspect conversion functions in one include: styles, layers, text and
// typefaces, artboards with their grids and guides, export options.

#include "PXMetaArtboard.h"
#include "PXMetaExportOptions.h"
#include "PXMetaLayer.h"
#include "PXMetaStyle.h"
#include "PXMetaText.h"
