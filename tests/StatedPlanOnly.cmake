# Tests of jobs that are about the stated plan itself, and so are not run with the adaptive one: what they look at is not
# there.  Patterns of GoogleTest's names.
set(XFER_STATED_PLAN_ONLY)
