#include "admin/Metrics.h"

#include "admin/ProcessFigures.h"

#include <cmath>
#include <limits>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>
#include <sstream>
#include <utility>
#include <vector>

namespace VtxQel
{

namespace
{

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

double InSeconds(WallTime time)
{
    return Seconds(time.time_since_epoch()).count();
}

/** Collects families one after the other; samples go to the family that was begun last. */
class Families
{
  public:
    void BeginCounter(const std::string& name, const std::string& help) { Begin(name, help, MetricType::Counter); }
    void BeginGauge(const std::string& name, const std::string& help) { Begin(name, help, MetricType::Gauge); }
    void BeginHistogram(const std::string& name, const std::string& help) { Begin(name, help, MetricType::Histogram); }

    template <class Number>
    void Add(Labels labels, Number value)
    {
        ClientMetric metric;
        metric.label = std::move(labels);
        metric.counter.value = static_cast<double>(value);
        metric.gauge.value = static_cast<double>(value);
        m_families.back().metric.push_back(std::move(metric));
    }

    void Add(Labels labels, const LatencySnapshot& latency)
    {
        ClientMetric metric;
        metric.label = std::move(labels);
        auto& histogram = metric.histogram;
        for (std::size_t index = 0; index < latency.counts.size(); ++index)
        {
            histogram.sample_count += latency.counts[index];
            const double bound = index < LatencySnapshot::BOUNDS.size()
                                     ? Seconds(LatencySnapshot::BOUNDS[index]).count()
                                     : std::numeric_limits<double>::infinity();
            histogram.bucket.push_back({histogram.sample_count, bound});
        }
        histogram.sample_sum = Seconds(latency.sum).count();
        m_families.back().metric.push_back(std::move(metric));
    }

    /** A sample for each count, told apart by a label. */
    void AddEach(const Labels& labels, const std::string& label, const Counts& counts)
    {
        for (const auto& [value, count] : counts)
        {
            Labels all = labels;
            all.push_back({label, value});
            Add(std::move(all), count);
        }
    }

    /** A sample for each state: 1 for the present one, 0 for the others. */
    void AddState(const Labels& labels, const std::vector<std::string>& states, const std::string& present)
    {
        for (const std::string& state : states)
        {
            Labels all = labels;
            all.push_back({"state", state});
            Add(std::move(all), state == present ? 1 : 0);
        }
    }

    template <class Number>
    void Gauge(const std::string& name, const std::string& help, Number value)
    {
        BeginGauge(name, help);
        Add({}, value);
    }

    template <class Number>
    void Counter(const std::string& name, const std::string& help, Number value)
    {
        BeginCounter(name, help);
        Add({}, value);
    }

    std::string Text() const { return prometheus::TextSerializer().Serialize(m_families); }

  private:
    void Begin(const std::string& name, const std::string& help, MetricType type)
    {
        m_families.push_back({"qel_" + name, help, type, {}});
    }

    std::vector<MetricFamily> m_families;
};

void AddAgent(Families& all, const AgentStatus& status)
{
    all.BeginGauge("build_info", "Always 1; the label tells the version.");
    all.Add({{"version", status.version}}, 1);
    all.Gauge("ready", "Whether the agent is ready (1) or not (0).", status.notReady.empty() ? 1 : 0);
    all.Gauge("log_level", "The level of the log, 0 to 7.", status.logLevel);
}

void AddConnection(Families& all, const ConnectionFigures& connection)
{
    all.BeginGauge("broker_connection_state", "1 for the state that the connection to the broker is in, else 0.");
    all.AddState({}, {"disconnected", "restoring", "consuming"}, connection.state);
    all.Gauge("broker_connection_age_seconds", "How long the connection has been open.", connection.age.count());
    all.Gauge("broker_blocked", "Whether the broker takes no messages because of an alarm.", connection.blocked);
    all.Gauge(
        "broker_reading_paused", "Whether nothing is read from the broker because too much is held.",
        connection.readingPaused);
    all.Gauge("broker_held_bytes", "Bytes of the bodies of all unsettled messages in memory.", connection.heldBytes);
    all.Gauge("broker_unrestored_routes", "Routes that the broker refused to restore.", connection.unrestored);
    all.BeginCounter("broker_reconnects_total", "Connections made again, by what ended the one before.");
    all.AddEach({}, "cause", connection.reconnects);
    all.BeginCounter("broker_moves_total", "Moves to another front end that were asked for, by their result.");
    all.AddEach({}, "result", connection.moves);
}

void AddLoopProbe(Families& all, const LoopProbeFigures& probe)
{
    all.BeginGauge("loop_probe_state", "1 for the state that the loop probe is in, else 0.");
    all.AddState({}, {"off", "waiting", "fresh", "behind", "failed"}, probe.state);
    all.BeginHistogram("loop_probe_seconds", "How long loop probes took to come back.");
    all.Add({}, probe.roundTrips);
    all.Counter("loop_probe_failures_total", "Loop probes that did not come back in time.", probe.failed);
    all.Counter(
        "loop_probe_strangers_total", "Loop probes of other processes that came from the client queue.",
        probe.strangers);
    all.Gauge(
        "loop_probe_last_return_timestamp_seconds", "When a loop probe last came back; 0 for never.",
        probe.lastReturnAt ? InSeconds(*probe.lastReturnAt) : 0.0);
}

/** One family over all lanes. */
template <class Value>
void AddLanes(Families& all, const std::vector<LaneFigures>& lanes, Value value)
{
    for (const LaneFigures& lane : lanes)
    {
        all.Add({{"lane", lane.name}}, value(lane));
    }
}

void AddLanes(Families& all, const std::vector<LaneFigures>& lanes)
{
    all.BeginCounter("lane_received_total", "Deliveries that came to the lane.");
    AddLanes(all, lanes, [](const LaneFigures& lane) { return lane.received; });
    all.BeginCounter("lane_settled_total", "Deliveries that the lane is done with, by outcome.");
    for (const LaneFigures& lane : lanes)
    {
        all.AddEach({{"lane", lane.name}}, "outcome", lane.settled);
    }
    all.BeginCounter("lane_failures_total", "Times that handling a delivery ended with an exception.");
    AddLanes(all, lanes, [](const LaneFigures& lane) { return lane.failures; });
    all.BeginGauge("lane_in_flight_messages", "Deliveries that are not settled yet.");
    AddLanes(all, lanes, [](const LaneFigures& lane) { return lane.inFlight; });
    all.BeginGauge("lane_waiting_messages", "Deliveries that wait for the lane's thread.");
    AddLanes(all, lanes, [](const LaneFigures& lane) { return lane.waiting; });
    all.BeginHistogram("lane_settlement_seconds", "Time from a delivery to its settlement.");
    AddLanes(all, lanes, [](const LaneFigures& lane) { return lane.latency; });
}

template <class Value>
void AddApplications(Families& all, const std::vector<ApplicationFigures>& applications, Value value)
{
    for (const ApplicationFigures& application : applications)
    {
        all.Add({{"application", application.name}}, value(application));
    }
}

void AddApplicationFlow(Families& all, const std::vector<ApplicationFigures>& applications)
{
    using A = ApplicationFigures;
    all.BeginGauge("application_flow", "1 for the way that the application's messages travel, else 0.");
    for (const A& application : applications)
    {
        all.AddState(
            {{"application", application.name}}, {"parked", "draining", "switching", "live"}, application.flow);
    }
    all.BeginGauge("application_instances", "Attached instances.");
    AddApplications(all, applications, [](const A& each) { return each.instances; });
    all.BeginGauge(
        "application_window_messages", "Deliveries that its instances may have without a verdict, together.");
    AddApplications(all, applications, [](const A& each) { return each.window; });
    all.BeginGauge("application_in_flight_messages", "Deliveries that its instances have without a verdict.");
    AddApplications(all, applications, [](const A& each) { return each.inFlight; });
    all.BeginGauge("application_pending_messages", "Messages in memory that wait for room in a window.");
    AddApplications(all, applications, [](const A& each) { return each.pending; });
    all.BeginGauge("application_retry_messages", "Messages in memory that wait for their next try.");
    AddApplications(all, applications, [](const A& each) { return each.waitingForRetry; });
    all.BeginGauge("application_held_bytes", "Bytes of the bodies held for the application.");
    AddApplications(all, applications, [](const A& each) { return each.heldBytes; });
}

void AddApplicationCounters(Families& all, const std::vector<ApplicationFigures>& applications)
{
    using A = ApplicationFigures;
    all.BeginCounter("application_tries_total", "Times that a message was given to an instance.");
    AddApplications(all, applications, [](const A& each) { return each.tries; });
    all.BeginCounter("application_verdicts_total", "Verdicts of its instances.");
    for (const A& application : applications)
    {
        all.AddEach({{"application", application.name}}, "verdict", application.verdicts);
    }
    all.BeginCounter("application_too_many_tries_total", "Messages given up after the last try.");
    AddApplications(all, applications, [](const A& each) { return each.tooManyTries; });
    all.BeginCounter("application_parked_total", "Messages moved to its parking queue.");
    AddApplications(all, applications, [](const A& each) { return each.parked; });
    all.BeginCounter("application_overdue_total", "Instances ended because a verdict was overdue.");
    AddApplications(all, applications, [](const A& each) { return each.overdue; });
}

void AddConfigurations(Families& all, const AgentStatus& status)
{
    using A = ApplicationFigures;
    all.BeginGauge("application_configuration_state", "1 for the state of the application's configuration, else 0.");
    for (const A& application : status.applications)
    {
        all.AddState(
            {{"application", application.name}}, {"missing", "applying", "applied", "failed"},
            application.configuration.state);
    }
    all.BeginGauge("application_topics", "Topics in force.");
    AddApplications(all, status.applications, [](const A& each) { return each.configuration.topics; });
    all.BeginGauge("application_queues", "Queues in force.");
    AddApplications(all, status.applications, [](const A& each) { return each.configuration.queues; });
    all.BeginCounter("configurations_total", "Configurations carried out, by how it ended.");
    all.AddEach({}, "result", {{"applied", status.configurations.applied}, {"failed", status.configurations.failed}});
    all.BeginHistogram("configuration_seconds", "How long configurations took.");
    all.Add({}, status.configurations.durations);
}

void AddRest(Families& all, const AgentStatus& status)
{
    all.BeginGauge("bindings", "Bindings of topics, by what is known of them on the broker.");
    all.AddEach({}, "state", status.routes.bindings);
    all.Gauge("queues", "Queues of applications that are consumed.", status.routes.queues);
    all.Gauge("journal_degraded", "Whether the journal of bindings cannot be written.", status.routes.journalDegraded);
    all.BeginCounter("pings_total", "Pings, by whether the reply was sent.");
    all.AddEach({}, "result", {{"answered", status.pings.answered}, {"failed", status.pings.failed}});
    all.BeginHistogram("ping_seconds", "Time from a ping's delivery to the broker's confirm of its reply.");
    all.Add({}, status.pings.latency);
    all.BeginCounter("dead_letters_total", "Messages given up, by reason.");
    all.AddEach({}, "reason", status.deadLetters);
    all.Counter(
        "control_messages_refused_total", "Control messages of publishers that may not send any.",
        status.refusedControlMessages);
    all.BeginGauge("certificate_expiry_timestamp_seconds", "When a certificate in use expires.");
    for (const CertificateFigures& certificate : status.certificates)
    {
        all.Add({{"role", certificate.role}}, InSeconds(certificate.notAfter));
    }
}

void AddProcess(Families& all, const AgentStatus& status)
{
    const ProcessFigures process = ProcessFigures::Read();
    all.Counter("process_cpu_seconds_total", "User and system time of the process.", process.cpuSeconds);
    all.Gauge("process_resident_memory_bytes", "Memory of the process that is in RAM.", process.residentBytes);
    all.Gauge("process_virtual_memory_bytes", "Address space of the process.", process.virtualBytes);
    all.Gauge("process_open_fds", "Open file descriptors.", process.openFiles);
    all.Gauge("process_max_fds", "Most file descriptors that may be open.", process.maxFiles);
    all.Gauge("process_threads", "Threads of the process.", process.threads);
    all.Gauge("process_start_time_seconds", "When the agent started, since 1970.", InSeconds(status.startedAt));
}

} // namespace

std::string MetricsText(const AgentStatus& status)
{
    Families all;
    AddAgent(all, status);
    AddConnection(all, status.connection);
    AddLoopProbe(all, status.loopProbe);
    AddLanes(all, status.lanes);
    AddApplicationFlow(all, status.applications);
    AddApplicationCounters(all, status.applications);
    AddConfigurations(all, status);
    AddRest(all, status);
    AddProcess(all, status);
    return all.Text();
}

} // namespace VtxQel
