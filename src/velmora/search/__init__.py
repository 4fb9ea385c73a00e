"""The search engine: candidate chunks from the index, files from disk, and the matches in them."""
