"""The list of the stations."""

STATIONS = []


def station(name, expected):
    """Adds a function to the stations: it gets the World and returns what it saw there, or raises."""
    def add(function):
        STATIONS.append((name, expected, function))
        return function
    return add
