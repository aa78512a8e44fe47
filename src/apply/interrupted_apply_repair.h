#pragma once

struct UpdateSession;

// Makes the installation consistent after an apply that was cut short: a file that exists
// only as "<name>.bak" gets its name back, a ".bak" beside an existing file is deleted.
void repairInterruptedApply(UpdateSession& session);
