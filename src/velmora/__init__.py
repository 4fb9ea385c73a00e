"""velmora: a code index and its text search."""
