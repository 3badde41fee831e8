// Pushing a job's backup list to the hosts of its group, as the job driver sees it.
#pragma once

// Whether the last syncBackupLists of this process delivered the list to a member of the group,
// counted from 1; under sound(pace) this means that the member has stored it.
bool listWasPushed(int member);
