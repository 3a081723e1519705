// Replaced by the real source.
