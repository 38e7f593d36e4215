# Tests of jobs that are about the stated plan itself, and so are not run with the adaptive one: what they look at is not
# there.  Patterns of GoogleTest's names.
set(XFER_STATED_PLAN_ONLY
  # The separate probe: what only it said, its thread, its handle and its time-out.
  *.sizeThatOnlyTheProbeSaid*
  *.laterRangeThanTheFileHasIsNoHarmWhenItIsAnsweredFirst/*
  *.aJobThatCannotAskForTheSizeSaysSoAndCanBeStartedLater
  *.withoutAHandleForItsProbeAJobFailsWithMinus1
  *.endsATransferLongBeforeTheDefaultsDo/probeTimeoutSec
  # The fixed delays of retries.
  *.busyServerIsAskedAgainAfterTheRealDelays
  # Small answers in a row are counted for a range; an adaptive plan counts them for the job.
  *.nineSmallAnswersInARowCostNoTry/4*
  # Several transfers begin at once, before anything is answered.
  *.wholeFilesOfTwoLengthsAreNotMixed/*
)
