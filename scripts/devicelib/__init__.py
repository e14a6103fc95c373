"""A throw-away device in a bubblewrap sandbox: its folders, its namespaces and what runs in it."""
