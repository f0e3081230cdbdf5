"""How the sync step turns a file of prices into a data directory."""
