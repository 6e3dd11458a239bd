-- Version 3: where the runs are that were moved out of the store.
CREATE TABLE archives (
    id @id,
    file TEXT NOT NULL,             -- with its path, as it was when it was made
    runs BIGINT NOT NULL,
    since @time NOT NULL,           -- start of the first one
    until @time NOT NULL,           -- start of the last one
    made @time NOT NULL
);
