// Timers_p.h - the Qt object behind a numbered timer.
#pragma once

#include <QList>
#include <QObject>

class TimerObject;

/// One numbered timer: delivers each expiry of any of its Qt timers to its callback object.
class GenericTimer : public QObject {
public:
    GenericTimer(int id, bool singleShot, TimerObject* callback) : m_id(id), m_singleShot(singleShot), m_callback(callback) {}
    ~GenericTimer() override;

    int id() const { return m_id; }
    int interval() const { return m_interval; }
    TimerObject* callback() const { return m_callback; }
    /// Starts one more Qt timer (coarse precision) with the interval.
    void startPeriod(int interval);
    /// Kills every Qt timer and sets the interval to 0.
    void stopAll();

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    int m_id;
    bool m_singleShot;
    int m_interval = 0;
    TimerObject* m_callback;
    QList<int> m_qtTimers;
};
