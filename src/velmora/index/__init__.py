"""Keeping a repository's index in step with its files: listing, building, freshness, safety, status."""
