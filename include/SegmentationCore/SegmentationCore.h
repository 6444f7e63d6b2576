// libSegmentationCore.camera.norvane.so for callers: one header with the
// caller's functions (setSourceImage ... deinitSegmentation, doSegmentationBB)
// and the live-wire functions (find_parent_info, fetch_path_array and their
// helpers). Installed as <SegmentationCore/SegmentationCore.h>; the headers it
// names are installed beside it as <SegmentationCore/engine/...> and
// <SegmentationCore/livewire/...>, and their includes of each other are
// written that way on install. In the source tree the same names resolve
// through the source root, which every target of the project has on its
// include path.
#pragma once

#include "engine/SegmentationCore.h"
#include "livewire/LiveWire.h"
