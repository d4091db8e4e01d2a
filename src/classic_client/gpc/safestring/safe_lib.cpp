// Placeholder until the bounds-checked routines land.
