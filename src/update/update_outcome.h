#pragma once

// Result of one apply run. The values are fixed: the entry point and the outcome messages
// depend on them, and any other value shows no message.
enum UpdateOutcome : int {
    NoConfig = 0,
    ManifestRejected = 1,
    UpToDate = 2,
    Updated = 3,
    Failed = 4,
};
