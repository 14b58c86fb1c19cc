// Waiting for a condition, with a limit.
#pragma once

#include <functional>

/// Polls `condition` until it holds. Returns false when it does not within a minute, which is far
/// more than anything here takes and only ends a test that would hang.
bool waitUntil(const std::function<bool()>& condition);
