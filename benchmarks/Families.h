#pragma once

// Each family registers its benchmarks. The main program calls them in this order, which is that of the results.

void RegisterLocks();
void RegisterWaiting();
void RegisterThreads();
void RegisterSockets();
void RegisterMessageQueues();
void RegisterFiles();
void RegisterPrograms();
void RegisterObjects();
void RegisterFailures();

// What others offer for the same works, where it is installed.
void RegisterBoost();
void RegisterPoco();
