// Replaced by the store.
