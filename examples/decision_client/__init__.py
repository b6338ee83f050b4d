"""A decision client: asks a paid model endpoint which desk each paragraph of a text belongs to,
inside the day's cap and the budget of its pass. ``python -m decision_client --help`` says how."""
