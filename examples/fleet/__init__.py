"""One cap for a fleet: the processes of any engine, whose paid calls are rows of one account."""
