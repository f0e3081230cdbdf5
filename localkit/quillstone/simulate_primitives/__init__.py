"""Small rules shared by the entry points and the pipeline: metaparameters and graph shape."""
