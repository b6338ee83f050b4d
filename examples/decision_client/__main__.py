import sys

from decision_client.cli import main

sys.exit(main())
