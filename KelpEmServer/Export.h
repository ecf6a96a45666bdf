#pragma once

// What the library exports. Everything else that it holds is hidden.
#define KELP_EM_EXPORT __attribute__((visibility("default")))
