// Tables that several commands show.
#ifndef QORCTL_VIEWS_H
#define QORCTL_VIEWS_H

#include "device.h"
#include "table.h"

namespace qorctl {

// The threads in the order of their names.
table threadTable(const device& dev);

// The pools of all segments that there are.
table poolTable(const device& dev);

}  // namespace qorctl

#endif
