#pragma once
#include "update/update_outcome.h"

// The one message box that ends a "--proactive" apply run; nothing for unknown values.
void showOutcomeMessage(UpdateOutcome outcome);
// Refusal boxes of the entry point (shown only with "--proactive").
void showAppStillRunningMessage();
void showAnotherUpdaterMessage();
