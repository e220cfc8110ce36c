// Shared between Deallocate and Send_Data, whose send-and-deallocate with
// abend and log data ends in a DEALLOCATE completed by cmdeal_cb.
#pragma once

#include "records.h"

// After a failed SEND_DATA or follow-on DEALLOCATE: frees the log-data copy
// made for the follow-on DEALLOCATE, if there is one.
void SCC_drop_follow_on_log_data(CCCB &cccb);
