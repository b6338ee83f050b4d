"""One cap for a fleet: several processes spend what one account in PostgreSQL leases to them."""
