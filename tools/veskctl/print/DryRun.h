// What an operation would send, shown and not sent.
#ifndef VESKCTL_DRY_RUN_H
#define VESKCTL_DRY_RUN_H

#include "Answer.h"

// Calls the operation with a scripted kernel at the other end, which acknowledges what wants it and otherwise has
// nothing to say. `unanswered` tells what would follow from a real answer.
Answer dryRun(const Operation& operation, const std::string& unanswered, bool showKeys);

#endif
