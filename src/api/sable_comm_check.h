// Checks of the attribute records and names that reach FIFO paths and the pipe table.
#ifndef SABLE_API_SABLE_COMM_CHECK_H
#define SABLE_API_SABLE_COMM_CHECK_H

#include "sable_comm.h"

// true when `name` contains a sequence that could leave the FIFO directory or carry shell
// syntax ("|", ";", ">", "<", "`", "&", "(", ")", "$", "..", "/"). `name` must not be NULL.
bool BlackListCheck(const char* name);

// `selfName` (or, when NULL, the process name) must be 1 to 100 characters and pass the
// blacklist; `priority` must be 0, 1 or 2. 0 or -EINVAL, with an error line. No state changes.
int CheckInputSelfNameAndPriority(const char* selfName, SabloPriority priority);

// targetName, mode (0 or 1), then self name and priority as above. The other fields are not
// checked. 0 or -EINVAL.
int CheckInputPipeAttr(const SabloAttr& attr);

// Self name and priority only. 0 or -EINVAL.
int CheckInputServerAttr(const SabloServerAttr& attr);

#endif
