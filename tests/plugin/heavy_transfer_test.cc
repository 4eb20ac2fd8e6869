// A large file through the whole chain: streaming, progress and the
// temporary file of the download at a size where mistakes show.
#include "transfer_fixture.h"

TEST_F(TransferTest, HundredMebibytesRoundTrip) { roundTrip(100u << 20); }
