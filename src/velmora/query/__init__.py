"""What a search looks for: its patterns, the trigram plan that narrows the index, file types."""
