// Test-only controls of the trace file; the plug-in itself never calls them.
#pragma once

// Closes the current trace file and starts a new one (header included) at `path`; a null path
// only closes it, so that writers see "no trace file". Returns false when the file cannot be made.
bool tlvtra_reopen_for_testing(const char* path);

// Replaces the debug-mode decision taken at load.
void tlvtra_set_debugmode_for_testing(bool on);

// The debug-mode decision in force.
bool tlvtra_debugmode_for_testing();
