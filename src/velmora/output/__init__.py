"""How search results are printed."""
