"""``velmora serve``: the search page and the JSON API over repositories' indexes."""
