#pragma once

#include "acquisition/datalayout.h"

/**
 * @brief The launcher's hold on its data folder: the lock that keeps a second
 * launcher out, the sweep of what a killed run left, and the emptying that
 * "Remove everything" asks for.
 *
 * Nothing here touches anything outside the base folder but our own abandoned
 * temporary folders, and nothing inside it but the exact names the layout spells;
 * no link is ever followed below the base folder.
 */
class DataFolder
{
public:
    explicit DataFolder(DataLayout layout) : m_layout(std::move(layout)) {}
    ~DataFolder() { unlock(); }
    DataFolder(const DataFolder &) = delete;
    DataFolder &operator=(const DataFolder &) = delete;

    /** Takes the lock for this launcher, once; false while another one holds it. A
     *  folder where no lock can be made is no sign of another launcher. */
    bool lock();
    void unlock();

    /** Removes what a launcher killed half-way left, and the previous copies that a
     *  complete install made needless. Call while holding the lock. */
    void sweep() const;

    /** Removes everything in the base folder but the lock, by first moving it out of
     *  sight, so a launcher killed half-way leaves a leftover, never a half-deleted
     *  game that looks installed. Call while holding the lock. */
    void empty() const;

private:
    DataLayout m_layout;
    int m_lockFd = -1;
};
