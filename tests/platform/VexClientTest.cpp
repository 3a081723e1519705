// Replaced by the real tests.
