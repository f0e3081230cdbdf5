"""The functions that expression graphs are made of, and the typed graph itself."""
