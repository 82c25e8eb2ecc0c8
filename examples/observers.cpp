// Observers: a subject tells whoever has registered with it, and keeps them alive.

#include <VelaHost_Utility/Observer.h>

#include <cstdio>

using namespace VelaHost_Utility;

// What there is to be told is for the program to say.
class TemperatureObserver : public Observer
{
public:
    virtual void OnTemperature(int degrees) = 0;
};

class Display : public TemperatureObserver
{
public:
    explicit Display(const char* name) : m_Name(name) {}
    ~Display() override { std::printf("%s gone\n", m_Name); }
    void OnTemperature(int degrees) override { std::printf("%s: %d\n", m_Name, degrees); }

private:
    const char* m_Name;
};

class Thermometer : public Observable
{
public:
    void Measure(int degrees)
    {
        const auto observers = m_Observers; // one may register or remove while it is told
        for (const SmartPointer<Observer>& observer : observers) {
            dynamic_cast<TemperatureObserver&>(*observer).OnTemperature(degrees);
        }
    }
};

int main()
{
    Thermometer thermometer;
    auto* hall = new Display("hall");
    thermometer.AddObserver(*hall); // the registration owns it
    const SmartPointer<Display> porch(new Display("porch"));
    thermometer.AddObserver(*porch); // shared with the pointer
    thermometer.Measure(21);

    thermometer.RemoveObserver(*hall); // was the last to hold it
    thermometer.RemoveObserver(*porch);
    std::printf("porch again: %d\n", thermometer.RemoveObserver(*porch));
}

// Output:
//   hall: 21
//   porch: 21
//   hall gone
//   porch again: -1
//   porch gone
