#ifndef NETWORKTABLE_H
#define NETWORKTABLE_H

#include "OutcomeTable.h"

/// What becomes of a run that meets a fault of the network, by fault and by what it was fetching.
const OutcomeTable &networkTable();

#endif
