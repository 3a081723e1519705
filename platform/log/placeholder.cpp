// Replaced by the real sources.
