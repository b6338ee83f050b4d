"""A day's cap that is written down: an account which any number of processes share.

:class:`SharedSpend` is the account, in SQLite or PostgreSQL; :class:`PaidCalls` is the road of a
paid call, one ``with`` block.
"""

from .calls import PaidCall, PaidCalls
from .records import AccountError, AccountSilent, Books, CapReached
from .spend import Figures, SharedSpend

__all__ = [
    "AccountError",
    "AccountSilent",
    "Books",
    "CapReached",
    "Figures",
    "PaidCall",
    "PaidCalls",
    "SharedSpend",
]
