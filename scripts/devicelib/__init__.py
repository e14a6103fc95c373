"""A throw-away device in a bubblewrap sandbox: its folders, its namespaces and its programs."""
