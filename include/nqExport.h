#pragma once

/// Marks what the shared libraries show. Everything else that they hold is hidden.
#define NQ_API [[gnu::visibility("default")]]
