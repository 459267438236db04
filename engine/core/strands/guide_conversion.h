#pragma once
// Turning guides into strands and back, for the operators that treat guides as hair (and the
// editing tools that take hair back as guides).

#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {

// One strand per guide, in guide order, with the guide's id, root and points and widths of 1.
// Attribute names become strand channels and per-point layer names point channels (default 0), in
// the union of all guides' names; a layer whose length differs from its guide's point count is
// left out, and every missing entry is 0.
StrandSet strandsFromGuides(const GuideSet& guides);

// One guide per strand with its id, root and points, its strand channels as attributes and its
// point channels as per-point layers. Widths are not carried, nor the engine's "_preview" channel.
GuideSet guidesFromStrands(const StrandSet& strands);

}  // namespace velmorin
