"""Where the packed program begins."""
import sys

from tessarocheck.program import main

sys.exit(main())
