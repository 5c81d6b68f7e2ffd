#pragma once

#include "QxCErrorList.h"

/// Creates error and message lists and knows each thread's master error list, in which the errors of that
/// thread are collected.
///
/// Thread safety: all operations may be called from any thread; a master list belongs to the thread that set
/// it.
class QX_PLATFORM_API QxCErrorManager {
public:
    QxCErrorManager(const QxCErrorManager&) = delete;
    QxCErrorManager& operator=(const QxCErrorManager&) = delete;
    virtual ~QxCErrorManager();

    /// The manager in use, or null as long as nobody asked for it; prefer it to getSingleton() when set.
    static QxCErrorManager* s_pErrorManager;

    /// @return the process's manager; never null. The first call creates it and sets s_pErrorManager, and must come
    ///         from one thread before others use the manager.
    static QxCErrorManager* getSingleton();

    /// @return whether the calling thread has a master error list
    bool hasMasterErrorList() const;

    /// @return the calling thread's master error list, not owned by the caller; null when it has none
    QxCErrorListPool* getMasterErrorList() const;

    /// Makes `list` the master error list of a thread. The list stays the caller's and must outlive its use.
    /// @param list     the new master list
    /// @param thread   -1: the calling thread, the only value in use
    /// @param replace  whether an existing master list may be replaced silently; with false a replacement is
    ///                 reported in the new list as a warning
    void setMasterErrorList(QxCErrorListPool* list, int thread, bool replace);

    /// Takes the master error list away from a thread; without one nothing happens.
    /// @param thread   -1: the calling thread, the only value in use
    void clearMasterErrorList(int thread);

    /// Hands every message of the list to the message manager and empties the list.
    /// @param list     may be empty: then nothing is sent
    /// @param flags    0, the only value in use
    void sendErrorList(QxCErrorListPool* list, int flags);

    /// Creates an empty error list, which the caller gives back with deleteErrorList.
    /// @param group          0, the only group in use
    /// @param overflow       1: a full list keeps its oldest entries and counts what it drops
    /// @param maxEntries     most entries that are stored
    /// @param maxArguments   most arguments of an entry that are kept apart from its text (none on Linux)
    /// @param maxEntryBytes  text bytes provided per entry; all texts together never exceed
    ///                       maxEntries x maxEntryBytes, while a single text may be longer
    /// @return the list; never null
    QxCErrorListPool* createErrorList(int group, int overflow, int maxEntries, int maxArguments,
                                      int maxEntryBytes);

    /// Deletes a list of createErrorList; null is allowed. If it is the calling thread's master list, the
    /// thread has none afterwards.
    void deleteErrorList(QxCErrorListPool* list);

    /// Creates an empty message list; arguments and ownership as for createErrorList.
    QxCErrorList* createMessageList(int group, int overflow, int maxEntries, int maxArguments,
                                    int maxEntryBytes);

    /// Deletes a list of createMessageList; null is allowed.
    void deleteMessageList(QxCErrorList* list);

private:
    QxCErrorManager();
};
